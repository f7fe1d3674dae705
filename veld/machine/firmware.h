// A firmware that is no more than its version: flashing it takes some seconds, and what was flashed last is remembered.
#pragma once

#include "veld/backend/backend.h"
#include "veld/base/worker.h"
#include "veld/state/store.h"

#include <memory>
#include <string>

namespace veld
{

class machine_firmware
{
public:
    /// `disk` saves into `store`; both outlive the jobs.
    machine_firmware(state_store &store, worker &disk, int64_t flash_ms)
        : store_(store), disk_(disk), flash_ms_(flash_ms)
    {
    }

    /// Learns what was flashed before the daemon was started. False when that is saved and cannot be understood.
    bool load(std::string *error);
    /// What was flashed last; empty: nothing yet.
    const std::string &flashed() const { return *flashed_; }

    /// See device_backend: an image is what docs/firmware-image.md says.
    static fault examine(firmware_image *image);
    std::unique_ptr<job> flash(const firmware_image &image, const progress_handler &progress);

private:
    class flash_job;

    state_store &store_;
    worker &disk_;
    int64_t flash_ms_;
    std::shared_ptr<std::string> flashed_ = std::make_shared<std::string>(); // shared with the jobs
};

} // namespace veld
