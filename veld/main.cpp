#include "veld/backend/backends.h"
#include "veld/base/log.h"
#include "veld/base/memory.h"
#include "veld/base/worker.h"
#include "veld/behaviour/behaviour.h"
#include "veld/firmware/downloads.h"
#include "veld/firmware/upgrade.h"
#include "veld/import/import.h"
#include "veld/machine/image.h"
#include "veld/machine/machine.h"
#include "veld/model/change.h"
#include "veld/model/document.h"
#include "veld/model/populate.h"
#include "veld/options.h"
#include "veld/passwords.h"
#include "veld/rpc/service.h"
#include "veld/server/doors.h"
#include "veld/server/privileges.h"
#include "veld/server/service_manager.h"
#include "veld/server/tls.h"
#include "veld/state/workspace.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

using namespace veld;

namespace
{

// Signals arrive as bytes on a descriptor, in the loop like everything else.
fd_owner signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN); // a file that may not grow is an error like any
    return fd_owner(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

void signal_arrived(loop *events, int fd, const std::function<void()> &reload)
{
    signalfd_siginfo info{};
    while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGHUP)
            reload();
        else
            events->stop();
    }
}

void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// What a behaviour may do to the device. The clients hear of it after the request that it happens in.
behaviour_host host_of(loop *events, tree *model, service *served)
{
    behaviour_host host;
    host.begin = [model] { model->begin_request(); };
    host.get = [model](const std::string &path) { return value_at(model, path); };
    host.set = [=](const std::string &path, json_t *value) {
        value_change change;
        std::string problem = value_put(model, path, value, &change);
        if (problem.empty())
            events->post([served, name = change.name, what = change.what,
                          stored = std::make_shared<json_ref>(std::move(change.value))] {
                served->value_changed(name, *what, stored->get());
            });
        return problem;
    };
    host.event = [=](int64_t group, json_t *value) {
        events->post([served, group, kept = std::make_shared<json_ref>(json_ref::share(value))] {
            served->send_event(group, kept->get());
        });
    };
    host.after = [events](int64_t milliseconds, std::function<void()> call) {
        return events->after(milliseconds, std::move(call));
    };
    host.cancel = [events](uint64_t timer) { events->cancel(timer); };
    return host;
}

int failed(const std::string &why)
{
    fprintf(stderr, "veld: %s\n", why.c_str());
    return EXIT_FAILURE;
}

// A hang-up: the log and the certificate are those that are there now.
void reload(service_manager *manager, const options &wanted, std::unique_ptr<tls_identity> *identity)
{
    manager->reloading();
    log_reopen();
    std::string error;
    if (*identity) {
        std::unique_ptr<tls_identity> fresh = tls_identity::load(wanted.tls_certificate, wanted.tls_key, &error);
        if (fresh)
            *identity = std::move(fresh);
        else
            LOG_ERROR("the certificate stays as it was: %s", error.c_str());
    }
    manager->ready();
}

// What was opened as root is open; from here on root's rights are not needed.
bool drop_rights(const options &wanted, const state_store &store, std::string *error)
{
    system_account account;
    if (!find_account(wanted.run_as, &account, error))
        return false;
    if (geteuid() != 0) {
        *error = "only root can run as " + account.name;
        return account.user == geteuid();
    }
    return (store.directory().empty() || give_away(store.directory(), account, error)) &&
           (wanted.files.empty() || give_away(wanted.files, account, error)) && become(account, error);
}

} // namespace

int main(int argc, char **argv)
{
    allocations_are_fatal();
    options wanted;
    const options_outcome outcome = options_parse(argc, argv, &wanted);
    if (outcome != options_outcome::run)
        return outcome == options_outcome::done ? EXIT_SUCCESS : 2;
    if (!wanted.import.empty())
        return import_run(wanted.import.c_str(), wanted.model, wanted.output);
    if (!wanted.image_version.empty())
        return image_make(wanted.image_version, wanted.image_payload, wanted.output);
    std::string error;
    if (!wanted.log.empty() && !log_open(wanted.log, &error))
        return failed(error);
    if (!passwords_take(std::move(wanted.users), wanted.password_file, &error))
        return failed(error);
    const std::string name = wanted.model.empty() ? "gateway" : wanted.model;
    json_ref document = document_read(name, &error);
    if (!document)
        return failed(error);
    loop events;
    machine_backend own;
    std::unique_ptr<behaviour> filed; // a device in a file goes before the machine
    std::vector<device_backend *> each{&own};
    if (!wanted.behaviour.empty()) {
        filed = behaviour::load(wanted.behaviour, wanted.trust_behaviour, &error);
        if (!filed)
            return failed(error);
        each.insert(each.begin(), filed.get());
    }
    backends behind(std::move(each));
    std::unique_ptr<tree> model = document_tree(document.get(), &behind, &error);
    if (!model)
        return failed(name + ": " + error);
    if (filed && !filed->fits(&error))
        return failed(error);
    document.reset(); // what the model needs of it, it shares

    raise_descriptor_limit();
    service_manager manager(events);
    const fd_owner signal_fd = signals();
    if (!signal_fd)
        return failed(std::string("cannot wait for signals: ") + strerror(errno));
    std::unique_ptr<tls_identity> identity;
    const loop::watch_id signals_watched = events.watch(signal_fd.get(), EPOLLIN, [&](uint32_t) {
        signal_arrived(&events, signal_fd.get(), [&] { reload(&manager, wanted, &identity); });
    });
    if (signals_watched == 0)
        return failed(std::string("cannot wait for signals: ") + strerror(errno));

    state_store store;
    if (!wanted.state.empty() && !store.open(wanted.state, &error))
        return failed(error);
    if (!wanted.tls_certificate.empty()) {
        identity = tls_identity::load(wanted.tls_certificate, wanted.tls_key, &error);
        if (!identity)
            return failed(error);
    }
    workspace folders;
    if (!folders.open(store.directory(), wanted.files, &error))
        return failed(error);
    worker disk(events, worker::at_end::finish);
    // What is there and cannot be read is no reason for a fresh device, which lets in whoever knows the usual
    // passwords.
    if (!own.open(store, disk, {wanted.flash_ms, wanted.reboot_ms}, &error))
        return failed(error);
    device machine(events, *model, store, disk);
    upgrade flash(events, *model, machine);
    bool values_fit = true;
    std::string values_error;
    model->on_reset([&] {
        if (wanted.populate > 0)
            populate(model.get(), wanted.populate, wanted.populate_nested);
        first_users_apply(model.get());
        values_fit = wanted.values.apply(model.get(), &values_error) && values_fit;
        flash.restore_version();
    });
    if (!machine.start(&error))
        return failed(error);
    if (!values_fit)
        return failed(values_error);
    if (!administrator_has_password(model.get()))
        LOG_WARNING("no administrator can log in with a password: --user NAME:admin makes the first one");
    downloads fetching(events, machine, flash, folders, {wanted.download_limit, wanted.download_stall_ms});
    service served(events, *model, machine, fetching);
    served.let_anonymous(wanted.anonymous);
    socket_rights rights{wanted.socket_mode};
    if (!wanted.socket_group.empty() && !find_group(wanted.socket_group, &rights.group.emplace(), &error))
        return failed(error);
    doors entrances(events, rights, [&](arrival who) {
        auto link = identity ? identity->accept(std::move(who.fd)) : std::make_unique<transport>(std::move(who.fd));
        if (link)
            served.welcome(std::move(who), std::move(link));
    });
    int status = EXIT_SUCCESS;
    machine.connect({[&](const char *action) {
                         behind.announced(action);
                         served.announce(action);
                     },
                     [&] {
                         entrances.close();
                         served.part_with_all();
                     },
                     [&] { entrances.reopen(); }, [&](const node *before) { served.replaced(before); },
                     [&](const std::string &why) {
                         LOG_ERROR("cannot come up again: %s", why.c_str());
                         status = EXIT_FAILURE;
                         events.stop();
                     }});
    std::vector<fd_owner> handed_over = manager.take_sockets();
    if (wanted.sockets.empty() && wanted.listen.empty() && handed_over.empty())
        wanted.sockets.emplace_back(default_socket);
    for (fd_owner &opened : handed_over)
        entrances.add(std::move(opened));
    for (const std::string &address : wanted.sockets)
        entrances.add(address);
    for (const std::string &address : wanted.listen)
        entrances.add(address);
    if (!entrances.open(&error))
        return failed(error);
    // Whoever asked for port 0 reads here which one it is.
    for (const auto &one : entrances.listeners()) {
        if (one->is_tcp())
            printf("listening on %s\n", one->address().c_str());
    }
    fflush(stdout);
    if (filed)
        filed->connect(host_of(&events, model.get(), &served));
    log_serving();
    if (!wanted.run_as.empty()) {
        if (!drop_rights(wanted, store, &error))
            return failed(error);
        entrances.keep();
    }
    manager.ready();
    events.run();
    manager.stopping();
    LOG_INFO("ends");
    return status;
}
