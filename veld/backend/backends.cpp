#include "veld/backend/backends.h"

#include <algorithm>

namespace veld
{

bool backends::knows(backend_use use, std::string_view name) const
{
    return std::any_of(each_.begin(), each_.end(), [&](const device_backend *one) { return one->knows(use, name); });
}

backend_part backends::serves(backend_use use, const scheme &what, const std::string &path)
{
    for (device_backend *one : each_) {
        const backend_part part = one->serves(use, what, path);
        if (part == backend_part::none)
            continue;
        behind_[{&what, use}] = one;
        return part;
    }
    return backend_part::none;
}

device_backend *backends::behind(backend_use use, const scheme &what) const
{
    const auto found = behind_.find({&what, use});
    return found == behind_.end() ? nullptr : found->second;
}

json_ref backends::read(const scheme &what, const std::string &path)
{
    device_backend *one = behind(backend_use::read, what);
    return one != nullptr ? one->read(what, path) : json_ref{};
}

json_ref backends::rows(const scheme &what, const std::string &path)
{
    device_backend *one = behind(backend_use::list, what);
    return one != nullptr ? one->rows(what, path) : json_ref{};
}

// One after the other; those that have acted take it back when a later one refuses.
fault backends::apply(const std::vector<backend_change> &changes, size_t *which)
{
    std::vector<std::vector<backend_change>> done;
    for (device_backend *one : each_) {
        std::vector<backend_change> own;
        std::vector<size_t> places;
        for (size_t i = 0; i < changes.size(); ++i) {
            const device_backend *serving = behind(backend_use::set, *changes[i].what);
            if (serving == nullptr || serving != one)
                continue;
            own.push_back(changes[i]);
            places.push_back(i);
        }
        if (fault refusal = own.empty() ? fault{} : one->apply(own, which)) {
            *which = places[std::min(*which, places.size() - 1)];
            for (size_t back = done.size(); back > 0; --back) {
                size_t nobody_asks = 0;
                each_[back - 1]->apply(done[back - 1], &nobody_asks);
            }
            return refusal;
        }
        for (backend_change &change : own)
            std::swap(change.value, change.before);
        done.push_back(std::move(own));
    }
    return {};
}

std::unique_ptr<job> backends::run(const scheme &what, const std::string &path, const json_t *input,
                                   const std::function<std::string(std::string_view)> &text_of, job_outcome *ended)
{
    if (device_backend *one = behind(backend_use::run, what))
        return one->run(what, path, input, text_of, ended);
    ended->problem = {code::not_supported, "this device does not implement the method"};
    return nullptr;
}

void backends::announced(const std::string &action)
{
    for (device_backend *one : each_)
        one->announced(action);
}

device_backend *backends::doer(backend_deed deed) const
{
    const auto found = std::find_if(each_.begin(), each_.end(), [deed](const auto *one) { return one->does(deed); });
    return found == each_.end() ? nullptr : *found;
}

std::string backends::flashed_version()
{
    device_backend *one = doer(backend_deed::flash);
    return one != nullptr ? one->flashed_version() : std::string{};
}

fault backends::examine(firmware_image *image)
{
    device_backend *one = doer(backend_deed::examine);
    return one != nullptr ? one->examine(image) : device_backend::examine(image);
}

std::unique_ptr<job> backends::flash(const firmware_image &image, const progress_handler &progress)
{
    device_backend *one = doer(backend_deed::flash);
    return one != nullptr ? one->flash(image, progress) : device_backend::flash(image, progress);
}

std::unique_ptr<job> backends::reboot(const std::string &action)
{
    device_backend *one = doer(backend_deed::reboot);
    return one != nullptr ? one->reboot(action) : device_backend::reboot(action);
}

} // namespace veld
