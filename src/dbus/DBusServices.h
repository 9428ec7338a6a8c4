#pragma once

#include <giomm.h>
#include <glibmm.h>
#include <string>
#include <vector>

namespace dbus {

/// The daemon's D-Bus service: publishes the configuration's entries as properties on the system bus.
///
/// Life cycle: `init` builds the introspection data and requests the bus name; `run` serves until the name is lost;
/// `destroyInstance` releases the name. Everything happens on the main thread, the callbacks inside `run`.
class DBusServices : public Gio::DBus::Object {
public:
    /// Returns the process-wide service; the first call creates it and requests the bus name.
    ///
    /// @throw Glib::Error when an entry's name, interface, object path or type breaks the introspection document.
    /// @throw std::runtime_error when the name could not be requested.
    static DBusServices* init();

    /// Runs the main loop; returns when the bus name is lost or an object cannot be registered.
    void run();

    /// Releases the bus name and frees the process-wide service, if there is one. The argument is ignored; it lets
    /// this be the deleter of a smart pointer.
    static void destroyInstance(DBusServices* service);

    ~DBusServices() override = default;
    DBusServices(const DBusServices&) = delete;
    DBusServices& operator=(const DBusServices&) = delete;
    DBusServices(DBusServices&&) = delete;
    DBusServices& operator=(DBusServices&&) = delete;

    /// Appends the introspection document of all entries: one node per object path, each with the one interface of
    /// its first entry. Texts go in as they are, unchecked and unescaped.
    static void generateXMLFile(std::string& xml);

    /// Returns the access of a property: "readwrite", "write" or "read"; "read" also when neither flag is set.
    static std::string accessString(bool isRead, bool isWrite);

    /// Registers all objects on the bus; ends the main loop when one is refused.
    static void onBusAcquired(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& name);
    /// Logs that the daemon now owns its name.
    static void onNameAcquired(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& name);
    /// Unregisters all objects and ends the main loop. The connection is empty when the bus itself is gone.
    static void onNameLost(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& name);

    /// Registers the root object and its children. @throw Glib::Error for the first object that is refused.
    static void registerObjects(const Glib::RefPtr<Gio::DBus::Connection>& connection);
    /// Registers each interface of one object. @throw Glib::Error for the first one that is refused.
    static void registerInterfaces(GDBusNodeInfo* node, const Glib::RefPtr<Gio::DBus::Connection>& connection);

    /// Logs a method call and leaves it unanswered. No method is declared, so the bus library refuses calls first.
    static void onMethodCall(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& sender,
                             const Glib::ustring& object_path, const Glib::ustring& interface_name,
                             const Glib::ustring& method_name, const Glib::VariantContainerBase& parameters,
                             const Glib::RefPtr<Gio::DBus::MethodInvocation>& invocation);

    /// Answers a Get, and each property of a GetAll, from the entry's stored content.
    ///
    /// @throw Gio::DBus::Error UNKNOWN_OBJECT, UNKNOWN_INTERFACE or UNKNOWN_PROPERTY when no entry matches.
    /// @throw std::exception when the content is not a number of the entry's type.
    static void onGetProperty(Glib::VariantBase& property, const Glib::RefPtr<Gio::DBus::Connection>& connection,
                              const Glib::ustring& sender, const Glib::ustring& object_path,
                              const Glib::ustring& interface_name, const Glib::ustring& property_name);

    /// Converts a stored text to the D-Bus type that the first character of `type` names: b, d, i or u; a string for
    /// every other type. @throw std::exception for d, i and u when the text does not begin with a number in range.
    static Glib::VariantBase contentToVariant(const Glib::ustring& type, const Glib::ustring& content);

    /// Answers a Set: writes the value as text to the entry's file and announces a change on the object, whether or
    /// not the write succeeded.
    ///
    /// @return true always.
    /// @throw Gio::DBus::Error UNKNOWN_OBJECT, UNKNOWN_INTERFACE or UNKNOWN_PROPERTY when no entry matches.
    static bool setProperty(const Glib::RefPtr<Gio::DBus::Connection>& connection, const Glib::ustring& sender,
                            const Glib::ustring& object_path, const Glib::ustring& interface_name,
                            const Glib::ustring& property_name, const Glib::VariantBase& value);

    static const Gio::DBus::InterfaceVTable interfaceVTable; ///< handlers of every registered interface
    static const Glib::ustring busName;                      ///< well-known name on the system bus
    static const Glib::ustring rootObjectPath;               ///< object path of the root and start of all others
    static const Glib::ustring interfaceBaseName;            ///< start of every interface name, before a dot
    static DBusServices* instance;                           ///< the process-wide service, null while there is none

private:
    DBusServices();

    guint ownerId = 0;                          ///< from the request of the bus name; 0 before it
    std::vector<guint> registrationIds;         ///< of the registered interfaces, in order of registration
    Glib::RefPtr<Glib::MainLoop> mainLoop;      ///< runs in `run`
    Glib::RefPtr<Gio::DBus::NodeInfo> nodeInfo; ///< the parsed introspection document
};

} // namespace dbus
