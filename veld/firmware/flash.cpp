#include "veld/firmware/flash.h"

#include "base/clock.h"
#include "veld/base/log.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

namespace veld
{

namespace
{

constexpr const char *firmware_file = "firmware.json";
constexpr std::string_view version_path = "DeviceInfo.SoftwareVersion";
constexpr const char *version_key = "SoftwareVersion";
constexpr int64_t step_ms = 50;
constexpr int64_t running = 1;
constexpr int64_t failing_percent = 50;

// The parameter at a path below the first root that has it.
node *parameter(tree &model, std::string_view path)
{
    for (const auto &root : model.root()->children) {
        const place found = model.find(root->what->name + "." + std::string(path));
        if (found && found.at->what == found.what && found.what->kind == node_kind::parameter)
            return found.at;
    }
    return nullptr;
}

} // namespace

bool flasher::start(const state_store &store, std::string *error)
{
    json_ref saved;
    if (!store.load(firmware_file, &saved, error))
        return false;
    const json_t *version = json_object_get(saved.get(), version_key);
    if (json_is_string(version))
        flashed_ = json_string_value(version);
    else if (saved)
        *error = store.place(firmware_file) + ": names no version";
    return !saved || json_is_string(version);
}

std::string flasher::version()
{
    node *shown = parameter(tree_, version_path);
    const json_ref value = shown != nullptr ? tree_.value(shown) : json_ref{};
    const char *text = json_string_value(value.get());
    return text != nullptr ? text : "";
}

void flasher::restore_version()
{
    node *shown = parameter(tree_, version_path);
    if (shown != nullptr && !flashed_.empty())
        tree_.store(shown, json_ref{json_string(flashed_.c_str())}, false);
}

void flasher::show(int64_t percent, int64_t status)
{
    if (node *progress = parameter(tree_, "DeviceInfo.UpgradeProgress"))
        tree_.store(progress, json_ref{json_integer(percent)}, false);
    if (node *state = parameter(tree_, "DeviceInfo.UpgradeStatus"))
        tree_.store(state, json_ref{json_integer(status)}, false);
}

void flasher::begin(const image_header &image, std::function<void()> finished)
{
    LOG_INFO("flashes %s", image.version.c_str());
    image_ = image;
    finished_ = std::move(finished);
    started_ = monotonic_ms();
    step();
}

void flasher::step()
{
    const int64_t passed = monotonic_ms() - started_;
    const int64_t percent = flash_ms_ > 0 ? std::min<int64_t>(passed * 100 / flash_ms_, 100) : 100;
    const bool failed = image_.failure != 0 && percent >= failing_percent;
    if (percent < 100 && !failed) {
        show(percent, running);
        timer_ = loop_.after(step_ms, [this] { step(); });
        return;
    }
    timer_ = 0;
    if (failed) {
        LOG_ERROR("flashing %s failed", image_.version.c_str());
        show(failing_percent, image_.failure);
        std::exchange(finished_, nullptr)();
        return;
    }
    json_ref document{json_object()};
    json_object_set_new(document.get(), version_key, json_string(image_.version.c_str()));
    saving_ = true;
    device_.save(firmware_file, std::move(document), [this](const fault &problem) { ended(problem); });
}

void flasher::ended(const fault &problem)
{
    saving_ = false;
    if (problem) {
        LOG_ERROR("flashing %s failed: %s", image_.version.c_str(), problem.message.c_str());
        show(100, -1);
    } else {
        show(100, running);
        flashed_ = image_.version;
        device_.reboot("Upgrade", false);
    }
    if (finished_)
        std::exchange(finished_, nullptr)();
}

void flasher::abort()
{
    if (timer_ == 0)
        return;
    loop_.cancel(timer_);
    timer_ = 0;
    LOG_WARNING("flashing %s was cut off", image_.version.c_str());
    std::exchange(finished_, nullptr)();
}

} // namespace veld
