// The machine that the daemon runs on, as what stands behind a model: its live values, and the methods that it has.
#pragma once

#include "veld/backend/backend.h"
#include "veld/machine/firmware.h"

#include <optional>

namespace veld
{

/// How long the machine, which is none of the devices that it plays, takes for what they do.
struct machine_times {
    int64_t flash_ms;
    int64_t reboot_ms;
};

class machine_backend : public device_backend
{
public:
    /// Before it flashes or reboots: where it keeps what was flashed. False when what was kept cannot be understood.
    bool open(state_store &store, worker &disk, machine_times times, std::string *error);

    bool knows(backend_use use, std::string_view name) const override;
    backend_part serves(backend_use use, const scheme &what, const std::string &path) override;
    json_ref read(const scheme &what, const std::string &path) override;
    json_ref rows(const scheme &what, const std::string &path) override;
    fault apply(const std::vector<backend_change> &changes, size_t *which) override;
    std::unique_ptr<job> run(const scheme &what, const std::string &path, const json_t *input,
                             const std::function<std::string(std::string_view)> &text_of, job_outcome *ended) override;
    void announced(const std::string &action) override;
    bool does(backend_deed deed) const override;
    std::string flashed_version() override;
    fault examine(firmware_image *image) override;
    std::unique_ptr<job> flash(const firmware_image &image, const progress_handler &progress) override;
    std::unique_ptr<job> reboot(const std::string &action) override;

private:
    std::optional<machine_firmware> firmware_; // once it is open
    int64_t reboot_ms_ = 0;
};

} // namespace veld
