// Reads, writes and follows one text property with giomm.
// Usage: giomm read|write|follow OBJECT INTERFACE PROPERTY [TEXT]
// Build: g++ -std=c++17 giomm.cpp -o giomm $(pkg-config --cflags --libs giomm-2.4)

#include <giomm.h>
#include <glibmm.h>
#include <iostream>

namespace {

const Glib::ustring service = "com.brenvok.korvaneinfod";
const Glib::ustring properties = "org.freedesktop.DBus.Properties";

/// Where a property is found.
struct Property {
    Glib::RefPtr<Gio::DBus::Connection> bus;
    Glib::ustring object;
    Glib::ustring interface;
    Glib::ustring name;
};

Glib::ustring get(const Property& property) {
    const auto arguments = Glib::Variant<std::tuple<Glib::ustring, Glib::ustring>>::create(
        std::make_tuple(property.interface, property.name));
    const auto reply = property.bus->call_sync(property.object, properties, "Get", arguments, service);
    Glib::Variant<Glib::VariantBase> boxed;
    reply.get_child(boxed, 0);
    return Glib::VariantBase::cast_dynamic<Glib::Variant<Glib::ustring>>(boxed.get()).get();
}

void setText(const Property& property, const Glib::ustring& text) {
    const auto value = Glib::Variant<Glib::VariantBase>::create(Glib::Variant<Glib::ustring>::create(text));
    const auto arguments =
        Glib::VariantContainerBase::create_tuple({Glib::Variant<Glib::ustring>::create(property.interface),
                                                  Glib::Variant<Glib::ustring>::create(property.name), value});
    property.bus->call_sync(property.object, properties, "Set", arguments, service);
}

/// Prints the property now, after each change on its object, and whenever the daemon has started anew.
void follow(const Property& property) {
    const auto show = [&property] { std::cout << get(property) << std::endl; };
    // Not by a proxy: it takes new values from the signal, and this signal has none.
    property.bus->signal_subscribe(sigc::hide(sigc::hide(sigc::hide(sigc::hide(sigc::hide(sigc::hide(show)))))),
                                   service, properties, "PropertiesChanged", property.object);
    Gio::DBus::watch_name(property.bus, service, sigc::hide(sigc::hide(sigc::hide(show))), {},
                          Gio::DBus::BUS_NAME_WATCHER_FLAGS_AUTO_START);
    Glib::MainLoop::create()->run();
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc < 5)
        return 2;
    Gio::init();
    try {
        const Glib::ustring command = argv[1];
        const Property property{Gio::DBus::Connection::get_sync(Gio::DBus::BUS_TYPE_SYSTEM), argv[2], argv[3], argv[4]};
        if (command == "read")
            std::cout << get(property) << std::endl;
        else if (command == "write" && argc == 6)
            setText(property, argv[5]);
        else if (command == "follow")
            follow(property);
    } catch (const Glib::Error& error) {
        std::cerr << error.what() << std::endl;
        return 1;
    }
    return 0;
}
