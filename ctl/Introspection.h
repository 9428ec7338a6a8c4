#pragma once

#include <string>
#include <vector>

namespace ctl {

/// A property as the introspection data of an object declares it.
struct DeclaredProperty {
    std::string interface;
    std::string name;
    std::string signature;
    std::string access; ///< "read", "write" or "readwrite"
};

/// What the introspection data of one object says.
struct Introspection {
    std::vector<DeclaredProperty> properties;
    std::vector<std::string> children; ///< names of child nodes
};

/// Reads introspection data. @throw std::runtime_error when it is no XML.
Introspection parseIntrospection(const std::string& xml);

} // namespace ctl
