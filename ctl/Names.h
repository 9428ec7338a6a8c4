#pragma once

namespace ctl {

inline constexpr const char* busName = "com.brenvok.korvaneinfod";
inline constexpr const char* rootObjectPath = "/com/brenvok/Korvaneinfo1";
inline constexpr const char* interfaceBaseName = "com.brenvok.Info1";
inline constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

} // namespace ctl
