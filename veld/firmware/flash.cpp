#include "veld/firmware/flash.h"

#include "base/clock.h"
#include "veld/base/log.h"

#include <algorithm>

namespace veld
{

namespace
{

constexpr const char *firmware_file = "firmware.json";
constexpr const char *version_path = "Device.DeviceInfo.SoftwareVersion";
constexpr const char *version_key = "SoftwareVersion";
constexpr int64_t step_ms = 50;
constexpr int64_t running = 1;
constexpr int64_t failing_percent = 50;

node *parameter(tree &model, const char *path)
{
    const place found = model.find(path);
    return found && found.at->what == found.what && found.what->kind == node_kind::parameter ? found.at : nullptr;
}

} // namespace

flasher::flasher(loop &events, tree &model, device &machine, state_store &store, int64_t flash_ms)
    : loop_(events), tree_(model), device_(machine), store_(store), flash_ms_(flash_ms)
{
    const json_ref saved = store_.load(firmware_file);
    const json_t *version = json_object_get(saved.get(), version_key);
    if (json_is_string(version))
        flashed_ = json_string_value(version);
    else if (saved)
        store_.set_aside(firmware_file, "it names no version");
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
    if (node *progress = parameter(tree_, "Device.DeviceInfo.UpgradeProgress"))
        tree_.store(progress, json_ref{json_integer(percent)}, false);
    if (node *state = parameter(tree_, "Device.DeviceInfo.UpgradeStatus"))
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
    const std::function<void()> finished = std::move(finished_);
    std::string error;
    json_ref document{json_object()};
    json_object_set_new(document.get(), version_key, json_string(image_.version.c_str()));
    if (failed) {
        LOG_ERROR("flashing %s failed", image_.version.c_str());
        show(failing_percent, image_.failure);
    } else if (!store_.save(firmware_file, document.get(), &error)) {
        LOG_ERROR("flashing %s failed: %s", image_.version.c_str(), error.c_str());
        show(percent, -1);
    } else {
        show(percent, running);
        flashed_ = image_.version;
        device_.reboot("Upgrade", false);
    }
    finished();
}

void flasher::abort()
{
    if (timer_ == 0)
        return;
    loop_.cancel(timer_);
    timer_ = 0;
    LOG_WARNING("flashing %s was cut off", image_.version.c_str());
    const std::function<void()> finished = std::move(finished_);
    finished();
}

} // namespace veld
