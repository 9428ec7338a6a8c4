#pragma once

#include <giomm.h>

/// Two ends of a D-Bus connection without a bus between them: one for the service, one for its client.
struct PeerConnections {
    PeerConnections();
    ~PeerConnections();
    PeerConnections(const PeerConnections&) = delete;
    PeerConnections& operator=(const PeerConnections&) = delete;

    /// Calls a method as the client and waits for the reply. @throw Glib::Error for an error reply.
    Glib::VariantContainerBase call(const Glib::ustring& path, const Glib::ustring& interface,
                                    const Glib::ustring& method, const Glib::VariantContainerBase& arguments) const;

    Glib::RefPtr<Gio::DBus::Connection> service;
    Glib::RefPtr<Gio::DBus::Connection> client;
};
