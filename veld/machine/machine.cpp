#include "veld/machine/machine.h"

#include "veld/live/live.h"
#include "veld/methods/methods.h"
#include "veld/model/scheme.h"

namespace veld
{

namespace
{

// A reboot of nothing: time passes.
class pause : public job
{
public:
    explicit pause(int64_t milliseconds) : milliseconds_(milliseconds) {}

protected:
    void proceed() override
    {
        if (std::exchange(waited_, true))
            succeed({});
        else
            wake_in(milliseconds_);
    }

private:
    int64_t milliseconds_;
    bool waited_ = false;
};

} // namespace

bool machine_backend::knows(backend_use use, std::string_view name) const
{
    switch (use) {
    case backend_use::read:
        return live_value_known(name);
    case backend_use::list:
        return live_rows_known(name);
    case backend_use::run:
        return method_known(name);
    case backend_use::set:
        break;
    }
    return false;
}

// The model names what it wants of the machine.
backend_part machine_backend::serves(backend_use use, const scheme &what, const std::string &)
{
    const bool wanted = use == backend_use::run ? what.kind == node_kind::method : what.from == source::live;
    return wanted && knows(use, what.provider) ? backend_part::until_set : backend_part::none;
}

json_ref machine_backend::read(const scheme &what, const std::string &)
{
    return json_ref{live_value(what.provider)};
}

json_ref machine_backend::rows(const scheme &what, const std::string &)
{
    return json_ref{live_rows(what.provider)};
}

fault machine_backend::apply(const std::vector<backend_change> &, size_t *)
{
    return {};
}

std::unique_ptr<job> machine_backend::run(const scheme &what, const std::string &, const json_t *input,
                                          const std::function<std::string(std::string_view)> &text_of,
                                          job_outcome *ended)
{
    return method_start(what.provider, input, text_of, ended);
}

void machine_backend::announced(const std::string &) {}

bool machine_backend::open(state_store &store, worker &disk, machine_times times, std::string *error)
{
    reboot_ms_ = times.reboot_ms;
    return firmware_.emplace(store, disk, times.flash_ms).load(error);
}

bool machine_backend::does(backend_deed) const
{
    return firmware_.has_value();
}

std::string machine_backend::flashed_version()
{
    return firmware_->flashed();
}

fault machine_backend::examine(firmware_image *image)
{
    return machine_firmware::examine(image);
}

std::unique_ptr<job> machine_backend::flash(const firmware_image &image, const progress_handler &progress)
{
    return firmware_->flash(image, progress);
}

std::unique_ptr<job> machine_backend::reboot(const std::string &)
{
    return std::make_unique<pause>(reboot_ms_);
}

} // namespace veld
