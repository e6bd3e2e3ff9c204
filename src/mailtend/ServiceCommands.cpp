#include "mailtend/commands.h"

#include "mail/postfix/ServiceManager.h"
#include "mail/services/service_scripts.h"

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

const char courierService[] = "courier-imap";

} // namespace

int statusMTA(const Args &)
{
    print_status(nullptr, ServiceManager::statusServer(0));
    return 0;
}

int startMTA(const Args &)
{
    return ServiceManager::startServer();
}

int stopMTA(const Args &)
{
    return ServiceManager::stopServer();
}

int startIMAP(const Args &)
{
    return restart_daemon(courierService, "start");
}

int stopIMAP(const Args &)
{
    return restart_daemon(courierService, "stop");
}

int restartIMAP(const Args &)
{
    return restart_daemon(courierService, "restart");
}

int statusIMAP(const Args &)
{
    print_status(nullptr, restart_daemon(courierService, "status"));
    return 0;
}

} // namespace zarnet::mail::postfix::mailtend_commands
