#include "mailtend/ServiceCommands.h"

#include "mail/postfix/ServiceManager.h"
#include "mail/services/service_scripts.h"

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace {

const char courierService[] = "courier-imap";

} // namespace

int statusMTA(int, char **)
{
    print_status(nullptr, ServiceManager::statusServer(0));
    return 0;
}

int startMTA(int, char **)
{
    return ServiceManager::startServer();
}

int stopMTA(int, char **)
{
    return ServiceManager::stopServer();
}

int startIMAP(int, char **)
{
    return restart_daemon(courierService, "start");
}

int stopIMAP(int, char **)
{
    return restart_daemon(courierService, "stop");
}

int restartIMAP(int, char **)
{
    return restart_daemon(courierService, "restart");
}

int statusIMAP(int, char **)
{
    print_status(nullptr, restart_daemon(courierService, "status"));
    return 0;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
