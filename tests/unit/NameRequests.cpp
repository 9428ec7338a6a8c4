#include "NameRequests.h"

#include <dlfcn.h>
#include <functional>

name_requests::Answer name_requests::answer = Answer::hold;
int name_requests::made = 0;
int name_requests::released = 0;
GBusType name_requests::lastBus = G_BUS_TYPE_NONE;
std::string name_requests::lastName;
GBusNameOwnerFlags name_requests::lastFlags = G_BUS_NAME_OWNER_FLAGS_NONE;

namespace {

constexpr guint heldId = G_MAXUINT; // the bus library counts from 1
std::function<void()> freeHeldRequest;

} // namespace

// Defined in the program, these are found before the ones in the shared library, which they call.

guint g_bus_own_name(GBusType bus_type, const gchar* name, GBusNameOwnerFlags flags,
                     GBusAcquiredCallback bus_acquired_handler, GBusNameAcquiredCallback name_acquired_handler,
                     GBusNameLostCallback name_lost_handler, gpointer user_data, GDestroyNotify user_data_free_func) {
    ++name_requests::made;
    name_requests::lastBus = bus_type;
    name_requests::lastName = name;
    name_requests::lastFlags = flags;
    if (name_requests::answer == name_requests::Answer::refuse) {
        user_data_free_func(user_data);
        return 0;
    }
    if (name_requests::answer == name_requests::Answer::hold) {
        freeHeldRequest = [user_data_free_func, user_data] { user_data_free_func(user_data); };
        return heldId;
    }
    static const auto real = reinterpret_cast<decltype(&g_bus_own_name)>(dlsym(RTLD_NEXT, "g_bus_own_name"));
    return real(bus_type, name, flags, bus_acquired_handler, name_acquired_handler, name_lost_handler, user_data,
                user_data_free_func);
}

void g_bus_unown_name(guint owner_id) {
    ++name_requests::released;
    if (owner_id == heldId) {
        freeHeldRequest();
        return;
    }
    static const auto real = reinterpret_cast<decltype(&g_bus_unown_name)>(dlsym(RTLD_NEXT, "g_bus_unown_name"));
    real(owner_id);
}
