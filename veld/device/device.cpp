#include "veld/device/device.h"

#include "veld/base/log.h"
#include "veld/state/configuration.h"

#include <memory>

namespace veld
{

namespace
{

constexpr const char *configuration_file = "config.json";
constexpr int64_t grace_ms = 1000;

} // namespace

bool device::restore(const json_t *saved, std::string *error)
{
    std::string problem;
    if (configuration_restore(&tree_, saved, &problem)) {
        const json_ref now = configuration_of(&tree_);
        partly_understood_ =
            saved != nullptr && json_equal(json_object_get(saved, "config"), json_object_get(now.get(), "config")) == 0;
        return true;
    }
    *error = store_.place(configuration_file) + ": " + problem;
    return false;
}

bool device::start(std::string *error)
{
    json_ref saved;
    return store_.load(configuration_file, &saved, error) && restore(saved.get(), error);
}

void device::save(json_ref document, done_handler done)
{
    struct saving {
        json_ref document;
        std::string error;
        bool keeps = false;
        bool saved = false;
    };
    // The store outlives the disk's thread, this device need not.
    auto work = std::make_shared<saving>();
    work->document = std::move(document);
    // What was left out of the saved one is still somewhere afterwards.
    work->keeps = partly_understood_;
    disk_.run(
        [&store = store_, work] {
            work->saved = (!work->keeps || store.keep(configuration_file, &work->error)) &&
                          store.save(configuration_file, work->document.get(), &work->error);
        },
        [this, work, done = std::move(done)] {
            if (work->saved) {
                partly_understood_ = partly_understood_ && !work->keeps;
                return done({});
            }
            LOG_ERROR("cannot be saved: %s", work->error.c_str());
            done({code::internal, "the configuration cannot be saved: " + work->error});
        });
}

void device::save_configuration(done_handler done)
{
    save(configuration_of(&tree_), std::move(done));
}

void device::factory_reset(done_handler done)
{
    struct removal {
        std::string error;
        bool removed = false;
    };
    auto work = std::make_shared<removal>();
    disk_.run([&store = store_, work] { work->removed = store.remove(configuration_file, &work->error); },
              [this, work, done = std::move(done)] {
                  if (!work->removed) {
                      LOG_ERROR("the saved configuration cannot be removed: %s", work->error.c_str());
                      return done({code::internal, "the saved configuration cannot be removed: " + work->error, ""});
                  }
                  const tree::snapshot before = tree_.take();
                  tree_.reset();
                  LOG_INFO("back in the factory state");
                  around_.announce("FactoryReset");
                  around_.replaced(before.get());
                  done({});
              });
}

void device::replace_configuration(json_ref document, done_handler done)
{
    std::string error;
    json_ref whole;
    if (!up_)
        return done({code::denied, "the device goes down", ""});
    if (!configuration_check(&tree_, document.get(), &whole, &error))
        return done({code::bad_file, "the configuration " + error, ""});
    // The tree follows when the disk has it: what cannot be saved changes nothing.
    const std::shared_ptr<json_ref> wanted = std::make_shared<json_ref>(std::move(document));
    save(std::move(whole), [this, wanted, done = std::move(done)](fault problem) {
        tree::snapshot before;
        std::string why;
        if (problem)
            return done(problem);
        if (!up_)
            problem = {code::denied, "the device goes down", ""};
        else if (!configuration_replace(&tree_, wanted->get(), &before, &why))
            problem = {code::bad_file, "the configuration " + why, ""};
        else
            around_.replaced(before.get());
        done(problem);
    });
}

void device::reboot(const char *action, bool force)
{
    if (!up_)
        return;
    if (grace_ == 0)
        around_.announce(action);
    action_ = action;
    if (force) {
        // The answer to whoever asked is written first.
        loop_.post([this] { go_down(); });
    } else if (grace_ == 0) {
        grace_ = loop_.after(grace_ms, [this] {
            grace_ = 0;
            go_down();
        });
    }
}

void device::go_down()
{
    if (!up_)
        return;
    if (grace_ != 0)
        loop_.cancel(grace_);
    grace_ = 0;
    up_ = false;
    LOG_INFO("goes down");
    around_.went_down();
    rebooting_ = tree_.behind()->reboot(action_);
    rebooting_->begin(loop_, [this](job_outcome &outcome) {
        if (outcome.problem)
            LOG_ERROR("the reboot: %s", outcome.problem.message.c_str());
        rebooting_.reset();
        come_up();
    });
}

void device::come_up()
{
    struct loading {
        json_ref saved;
        std::string error;
        bool loaded = false;
    };
    auto work = std::make_shared<loading>();
    disk_.run([&store = store_, work] { work->loaded = store.load(configuration_file, &work->saved, &work->error); },
              [this, work] {
                  if (!work->loaded || !restore(work->saved.get(), &work->error)) {
                      around_.broke(work->error);
                      return;
                  }
                  up_ = true;
                  LOG_INFO("is up again");
                  around_.came_up();
              });
}

} // namespace veld
