#include "veld/firmware/upgrade.h"

#include "veld/base/log.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace veld
{

namespace
{

constexpr std::string_view version_path = "DeviceInfo.SoftwareVersion";
constexpr int64_t running = 1;
constexpr int64_t usual_failure = -1;

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

// Takes the next number of "1.2.3", without leading zeros; empty for 0 and when there is none.
std::string_view take_number(std::string_view *numbers)
{
    const size_t dot = numbers->find('.');
    std::string_view part = numbers->substr(0, dot);
    part.remove_prefix(std::min(part.find_first_not_of('0'), part.size()));
    *numbers = dot == std::string_view::npos ? std::string_view{} : numbers->substr(dot + 1);
    return part;
}

} // namespace

std::string upgrade::version()
{
    node *shown = parameter(tree_, version_path);
    const json_ref value = shown != nullptr ? tree_.value(shown) : json_ref{};
    const char *text = json_string_value(value.get());
    return text != nullptr ? text : "";
}

void upgrade::restore_version()
{
    node *shown = parameter(tree_, version_path);
    std::string flashed = tree_.behind()->flashed_version();
    if (flashed.empty())
        flashed = flashed_;
    if (shown != nullptr && !flashed.empty())
        tree_.store(shown, json_ref{json_string(flashed.c_str())}, false);
}

void upgrade::show(int64_t percent, int64_t status)
{
    if (node *progress = parameter(tree_, "DeviceInfo.UpgradeProgress"))
        tree_.store(progress, json_ref{json_integer(percent)}, false);
    if (node *state = parameter(tree_, "DeviceInfo.UpgradeStatus"))
        tree_.store(state, json_ref{json_integer(status)}, false);
}

void upgrade::begin(const firmware_image &image, std::function<void()> finished)
{
    LOG_INFO("flashes %s", image.version.c_str());
    coming_ = image.version;
    finished_ = std::move(finished);
    percent_ = 0;
    show(0, running);
    flashing_ = tree_.behind()->flash(image, [this](int percent) {
        percent_ = std::clamp(percent, 0, 100);
        show(percent_, running);
    });
    flashing_->begin(loop_, [this](job_outcome &outcome) { ended(outcome); });
}

void upgrade::ended(job_outcome &outcome)
{
    flashing_.reset();
    if (outcome.problem) {
        const json_int_t status = json_integer_value(outcome.output.get());
        LOG_ERROR("flashing %s failed: %s", coming_.c_str(), outcome.problem.message.c_str());
        show(percent_, status < 0 ? status : usual_failure);
    } else {
        show(100, running);
        flashed_ = coming_;
        device_.reboot("Upgrade", false);
    }
    finish();
}

void upgrade::finish()
{
    if (const std::function<void()> finished = std::exchange(finished_, nullptr))
        finished();
}

void upgrade::abort()
{
    if (!flashing_ || !flashing_->can_be_cut_off())
        return;
    flashing_.reset();
    LOG_WARNING("flashing %s was cut off", coming_.c_str());
    finish();
}

bool same_version(std::string_view a, std::string_view b)
{
    // The product is what stands before the last dash; without one there is none.
    const size_t dash_a = a.rfind('-') + 1;
    const size_t dash_b = b.rfind('-') + 1;
    if (a.substr(0, dash_a) != b.substr(0, dash_b))
        return false;
    a.remove_prefix(dash_a);
    b.remove_prefix(dash_b);
    if (a.empty() != b.empty())
        return false;
    while (!a.empty() || !b.empty()) {
        if (take_number(&a) != take_number(&b))
            return false;
    }
    return true;
}

} // namespace veld
