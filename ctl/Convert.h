#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace ctl {

/// A value of one of D-Bus's basic types; a boolean is an int32_t of 0 or 1, as sd-bus takes it.
using BasicValue = std::variant<std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t, std::int64_t,
                                std::uint64_t, double, std::string>;

/// Converts a VALUE of the command line to the D-Bus type that the property declares.
///
/// @throw Failure when the text is no value of the type, or one that the daemon could not read back.
BasicValue convert(const std::string& signature, const std::string& text);

/// Returns the value as the daemon answers it after a Set.
std::string expectedText(const std::string& signature, const BasicValue& value);

} // namespace ctl
