// The least that a start on giomm takes: the bare loop, then constants published in the fewest steps. It reads no
// configuration, so that nothing of it is the daemon's own work.
//
// Usage: giomm-start ENTRIES RECORD
#include "items.h"
#include "record.h"

#include <giomm.h>
#include <iostream>
#include <string>

namespace {

using Connection = Glib::RefPtr<Gio::DBus::Connection>;

std::string introspectionXml(unsigned entries) {
    std::string xml = "<node><interface name='" BENCH_INTERFACE "'>";
    for (unsigned entry = 0; entry < entries; ++entry)
        xml += "<property name='" + itemName(entry) + "' type='s' access='readwrite'/>";
    return xml + "</interface></node>";
}

void onGetProperty(Glib::VariantBase& value, const Connection& /*connection*/, const Glib::ustring& /*sender*/,
                   const Glib::ustring& /*path*/, const Glib::ustring& /*interface*/, const Glib::ustring& /*name*/) {
    value = Glib::Variant<Glib::ustring>::create(BENCH_VALUE);
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: giomm-start ENTRIES RECORD\n";
        return 1;
    }
    replay(argv[2]);

    Gio::init();
    const auto node = Gio::DBus::NodeInfo::create_for_xml(introspectionXml(static_cast<unsigned>(std::stoi(argv[1]))));
    const Gio::DBus::InterfaceVTable vtable({}, sigc::ptr_fun(&onGetProperty));
    const auto loop = Glib::MainLoop::create();
    Gio::DBus::own_name(
        Gio::DBus::BUS_TYPE_SYSTEM, BENCH_NAME,
        [&](const Connection& connection, const Glib::ustring& /*name*/) {
            connection->register_object(BENCH_PATH, node->lookup_interface(BENCH_INTERFACE), vtable);
        },
        {}, [&](const Connection& /*connection*/, const Glib::ustring& /*name*/) { loop->quit(); });
    loop->run();
    return 0;
}
