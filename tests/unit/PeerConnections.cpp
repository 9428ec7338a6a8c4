#include "PeerConnections.h"

#include <array>
#include <sys/socket.h>

namespace {

/// Starts the handshake at one end of a socket; the connection is stored when it is complete.
void connect(int socket, GDBusConnectionFlags flags, Glib::RefPtr<Gio::DBus::Connection>& connection) {
    GSocket* const gsocket = g_socket_new_from_fd(socket, nullptr);
    GSocketConnection* const stream = g_socket_connection_factory_create_connection(gsocket);
    const char* const guid =
        (flags & G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER) != 0 ? g_dbus_generate_guid() : nullptr;
    g_dbus_connection_new(
        G_IO_STREAM(stream), guid, flags, nullptr, nullptr,
        [](GObject* /*source*/, GAsyncResult* result, gpointer data) {
            *static_cast<Glib::RefPtr<Gio::DBus::Connection>*>(data) =
                Glib::wrap(g_dbus_connection_new_finish(result, nullptr));
        },
        &connection);
    g_object_unref(stream);
    g_object_unref(gsocket);
    g_free(const_cast<char*>(guid));
}

} // namespace

PeerConnections::PeerConnections() {
    Gio::init();
    std::array<int, 2> sockets{-1, -1};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data());
    connect(sockets[0], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER, service);
    connect(sockets[1], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, client);
    while (!service || !client)
        Glib::MainContext::get_default()->iteration(true);
    // The binding relies on a sender, which otherwise the bus would add.
    g_dbus_connection_add_filter(
        client->gobj(),
        [](GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming, gpointer /*data*/) {
            if (incoming != FALSE)
                return message;
            GDBusMessage* const copy = g_dbus_message_copy(message, nullptr);
            g_object_unref(message);
            g_dbus_message_set_sender(copy, ":1.1");
            return copy;
        },
        nullptr, nullptr);
}

PeerConnections::~PeerConnections() {
    g_dbus_connection_close_sync(client->gobj(), nullptr, nullptr);
    g_dbus_connection_close_sync(service->gobj(), nullptr, nullptr); // may have closed itself by now
}

Glib::VariantContainerBase PeerConnections::call(const Glib::ustring& path, const Glib::ustring& interface,
                                                 const Glib::ustring& method,
                                                 const Glib::VariantContainerBase& arguments) const {
    Glib::RefPtr<Gio::AsyncResult> reply;
    client->call(path, interface, method, arguments, [&](Glib::RefPtr<Gio::AsyncResult>& result) { reply = result; });
    while (!reply)
        Glib::MainContext::get_default()->iteration(true);
    return client->call_finish(reply);
}
