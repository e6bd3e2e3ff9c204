#include "mailtend/commands.h"

#include "mail/panel/restore_params.h"
#include "mail/postfix/ModuleManager.h"
#include "mail/postfix/ServiceManager.h"
#include "mail/services/service_scripts.h"
#include "mailtend/OptionTypes.h"
#include "mailtend/do_main.h"
#include "utils/cpp_mysql.h"

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

typedef SelectedMailComponents MC;

const char courierService[] = "courier-imap";
const unsigned postfixModules = MC::smtp | MC::smtps | MC::submission;
const unsigned courierComponents = MC::pop3 | MC::imap | MC::pop3s | MC::imaps;

unsigned getComponents(const Args &args)
{
    const unsigned selected =
        args.has("mail-component") ? args.get<MC>("mail-component").components : 0;
    return selected != 0 ? selected : unsigned(MC::all);
}

// The panel's switch for the submission service; off when the panel cannot
// say (getBoolMiscParamSafe has warned then).
bool submissionSwitchedOn()
{
    zarnet::mysql::Connection panel;
    return zarnet::mail::restore::getBoolMiscParamSafe("message_submission", panel);
}

// A change reaches a running server only through a reload; a stopped one
// reads the new files when it starts.
bool storedWhileRunning(ModuleManager &modules)
{
    return modules.storeModules(false) && ServiceManager::statusServer(0) == 0;
}

// Both return whether the caller has to reload the server. The panel is
// asked before master.cf is locked: a slow database must not hold up the
// other tools' edits.
bool checkEnablePostfixModules(unsigned components)
{
    if ((components & postfixModules) == 0)
        return false;
    const bool submission = (components & MC::submission) != 0 && submissionSwitchedOn();
    ModuleManager &modules = ModuleManager::getInstance();
    modules.loadModules(false);
    if (components & MC::smtp)
        modules.addModule(SmtpdModule, true);
    if (components & MC::smtps)
        modules.addModule(SmtpsdModule, true);
    if (components & MC::submission) {
        if (submission)
            modules.addModule(SubmissionModule, true);
        else
            modules.disableModule(SubmissionModule.name, SubmissionModule.command);
    }
    return storedWhileRunning(modules);
}

// A submission service the panel has switched on stays.
bool checkDisablePostfixModules(unsigned components)
{
    if ((components & postfixModules) == 0)
        return false;
    const bool submission = (components & MC::submission) != 0 && !submissionSwitchedOn();
    ModuleManager &modules = ModuleManager::getInstance();
    modules.loadModules(false);
    if (components & MC::smtp)
        modules.disableModule(SmtpdModule.name, SmtpdModule.command);
    if (components & MC::smtps)
        modules.disableModule(SmtpsdModule.name, SmtpsdModule.command);
    if (submission)
        modules.disableModule(SubmissionModule.name, SubmissionModule.command);
    return storedWhileRunning(modules);
}

// The mta step of a component command: a failure, thrown or returned, is
// reported as main reports it and the command goes on with 1.
int mtaStep(int (*step)(int, char **))
{
    return runGuarded(step, 0, nullptr) != 0 ? 1 : 0;
}

int courierStep(unsigned components, const char *action)
{
    if ((components & courierComponents) == 0)
        return 0;
    return restart_daemon(courierService, action) != 0 ? 1 : 0;
}

// Start, stop and restart: the modules, the mail server, then the POP3/IMAP
// servers. A module change is reloaded unless the mail server's own step
// reads the new files anyway (stop and restart).
int componentCommand(const Args &args, bool (*modules)(unsigned), int (*mta)(int, char **),
                     bool reloadAfterMta, const char *courierAction)
{
    const unsigned components = getComponents(args);
    const bool reload = modules(components);
    int status = 0;
    if (components & MC::mta)
        status = mtaStep(mta);
    if (reload && (reloadAfterMta || (components & MC::mta) == 0))
        ServiceManager::reloadServer();
    return status | courierStep(components, courierAction);
}

} // namespace

int startService(const Args &args)
{
    return componentCommand(args, checkEnablePostfixModules,
                            [](int, char **) { return ServiceManager::startServer(); }, true,
                            "start");
}

int stopService(const Args &args)
{
    return componentCommand(args, checkDisablePostfixModules,
                            [](int, char **) { return ServiceManager::stopServer(); }, false,
                            "stop");
}

int restartService(const Args &args)
{
    return componentCommand(args, checkEnablePostfixModules,
                            [](int, char **) { return ServiceManager::restartServer(); }, false,
                            "restart");
}

int reloadService(const Args &args)
{
    const unsigned components = getComponents(args);
    int status = 0;
    if ((components & MC::mta) && ServiceManager::reloadServer() != 0)
        status = 1;
    return status | courierStep(components, "reload");
}

int statusService(const Args &args)
{
    const unsigned components = getComponents(args);
    if (components & MC::mta)
        print_status("mta", ServiceManager::statusServer(0));
    if ((components & courierComponents) == 0)
        return 0;
    const int courier = restart_daemon(courierService, "status");
    const struct {
        MC::MailComponents bit;
        const char *name;
    } order[] = {{MC::pop3, "pop3"}, {MC::pop3s, "pop3s"}, {MC::imap, "imap"}, {MC::imaps, "imaps"}};
    for (const auto &c : order)
        if (components & c.bit)
            print_status(c.name, courier);
    return 0;
}

int startSMTPD(const Args &)
{
    if (checkEnablePostfixModules(MC::smtp | MC::smtps))
        ServiceManager::reloadServer();
    return 0;
}

int stopSMTPD(const Args &)
{
    if (checkDisablePostfixModules(MC::smtp | MC::smtps))
        ServiceManager::reloadServer();
    return 0;
}

int restartSMTPD(const Args &args)
{
    return startSMTPD(args);
}

// The panel's switch is not consulted: these commands are how it is obeyed.
int enableSubmission(const Args &)
{
    ModuleManager &modules = ModuleManager::getInstance();
    modules.loadModules(false);
    modules.addModule(SubmissionModule, true);
    if (storedWhileRunning(modules))
        ServiceManager::reloadServer();
    return 0;
}

int disableSubmission(const Args &)
{
    ModuleManager &modules = ModuleManager::getInstance();
    modules.loadModules(false);
    modules.disableModule(SubmissionModule.name, SubmissionModule.command);
    if (storedWhileRunning(modules))
        ServiceManager::reloadServer();
    return 0;
}

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
