#include "Introspection.h"

#include <cstring>
#include <expat.h>
#include <memory>
#include <stdexcept>

namespace ctl {

namespace {

/// State of the parser. Only the first levels count: node, and in it interfaces with properties, and child nodes.
struct State {
    Introspection result;
    int depth = 0;
    std::string interface; ///< name of the interface element that is open
};

std::string attribute(const char* const* attributes, const char* name) {
    for (; *attributes != nullptr; attributes += 2)
        if (std::strcmp(attributes[0], name) == 0)
            return attributes[1];
    return {};
}

void onStart(void* data, const char* element, const char** attributes) {
    State& state = *static_cast<State*>(data);
    const int depth = state.depth++;
    const std::string name = attribute(attributes, "name");
    if (depth == 1 && std::strcmp(element, "node") == 0)
        state.result.children.push_back(name);
    if (depth == 1)
        state.interface = std::strcmp(element, "interface") == 0 ? name : "";
    if (depth == 2 && !state.interface.empty() && std::strcmp(element, "property") == 0)
        state.result.properties.push_back(
            {state.interface, name, attribute(attributes, "type"), attribute(attributes, "access")});
}

void onEnd(void* data, const char* /*element*/) { --static_cast<State*>(data)->depth; }

} // namespace

Introspection parseIntrospection(const std::string& xml) {
    const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate("UTF-8"),
                                                                              &XML_ParserFree);
    State state;
    XML_SetUserData(parser.get(), &state);
    XML_SetElementHandler(parser.get(), onStart, onEnd);
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) != XML_STATUS_OK)
        throw std::runtime_error(XML_ErrorString(XML_GetErrorCode(parser.get())));
    return state.result;
}

} // namespace ctl
