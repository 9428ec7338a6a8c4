#include "ConfigFileParser.h"
#include "Journal.h"
#include "dbus/DBusServices.h"

#include <functional>
#include <memory>
#include <unistd.h>

/// Owns the service from the request of the bus name until the main loop has ended.
using ServiceHolder = std::unique_ptr<dbus::DBusServices, std::function<void(dbus::DBusServices*)>>;

/// Usage: korvaneinfod -c FILE. The exit status is 0 also after a failure; the journal tells the two apart.
int main(int argc, char* argv[]) {
    // "c" takes no argument of its own and any option will do: the file name is whatever follows the first option.
    if (getopt(argc, argv, "c") == -1) {
        JOURNAL(LOG_ERR, 57, "main", "Mandatory argument -c 'config file name' missing");
        return 0;
    }
    if (optind >= argc) {
        JOURNAL(LOG_ERR, 52, "main", "Argument value is empty");
        return 0;
    }
    if (!ConfigFileParser::getInstance()->parseData(argv[optind])) {
        JOURNAL(LOG_ERR, 34, "main", "Error in getting data from configuration file");
        return 0;
    }
    JOURNAL(LOG_INFO, 38, "main", "Initializing D-Bus Service");
    const ServiceHolder service(dbus::DBusServices::init(), &dbus::DBusServices::destroyInstance);
    service->run();
    return 0;
}
