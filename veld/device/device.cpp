#include "veld/device/device.h"

#include "veld/base/log.h"
#include "veld/state/configuration.h"

namespace veld
{

namespace
{

constexpr const char *configuration_file = "config.json";
constexpr int64_t grace_ms = 1000;

} // namespace

void device::start()
{
    const json_ref saved = store_.load(configuration_file);
    std::string error;
    if (!configuration_restore(&tree_, saved.get(), &error))
        store_.set_aside(configuration_file, error);
}

fault device::save_configuration()
{
    std::string error;
    if (store_.save(configuration_file, configuration_of(&tree_).get(), &error))
        return {};
    LOG_ERROR("the configuration cannot be saved: %s", error.c_str());
    return {code::internal, "the configuration cannot be saved: " + error, ""};
}

fault device::factory_reset()
{
    std::string error;
    if (!store_.remove(configuration_file, &error)) {
        LOG_ERROR("the saved configuration cannot be removed: %s", error.c_str());
        return {code::internal, "the saved configuration cannot be removed: " + error, ""};
    }
    tree_.reset();
    LOG_INFO("back in the factory state");
    around_.announce("FactoryReset");
    return {};
}

fault device::replace_configuration(const json_t *document)
{
    std::string error;
    fault unsaved;
    const auto save = [&] {
        unsaved = save_configuration();
        return !unsaved;
    };
    if (configuration_replace(&tree_, document, &error, save))
        return {};
    return unsaved ? unsaved : fault{code::bad_file, "the configuration " + error, ""};
}

void device::reboot(const char *action, bool force)
{
    if (!up_)
        return;
    if (grace_ == 0)
        around_.announce(action);
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
    loop_.after(reboot_ms_, [this] { come_up(); });
}

void device::come_up()
{
    start();
    up_ = true;
    LOG_INFO("is up again");
    around_.came_up();
}

} // namespace veld
