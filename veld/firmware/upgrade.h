// The upgrade: what is behind the model flashes a firmware, which clients can watch, and the device reboots into it.
#pragma once

#include "veld/backend/backend.h"
#include "veld/base/job.h"
#include "veld/base/loop.h"
#include "veld/device/device.h"
#include "veld/model/tree.h"

#include <functional>
#include <memory>
#include <string>

namespace veld
{

class upgrade
{
public:
    upgrade(loop &events, tree &model, device &machine) : loop_(events), tree_(model), device_(machine) {}
    upgrade(const upgrade &) = delete;
    upgrade &operator=(const upgrade &) = delete;

    /// The version that runs: what was flashed last, else the model's own.
    std::string version();
    /// Shows the flashed version in a tree that is back in its factory state.
    void restore_version();
    /// Whether this is an image for the device; finds out its version.
    fault examine(firmware_image *image) { return tree_.behind()->examine(image); }

    bool busy() const { return flashing_ != nullptr; }
    /// Begins; the device reboots into the new version when it is done. `finished` is called at the end, however it
    /// ends.
    void begin(const firmware_image &image, std::function<void()> finished);
    /// The device goes down: what was under way is lost, and the old version stays.
    void abort();

private:
    void ended(job_outcome &outcome);
    void finish();
    void show(int64_t percent, int64_t status);

    loop &loop_;
    tree &tree_;
    device &device_;
    std::unique_ptr<job> flashing_;
    std::string coming_; // the version that is flashed
    std::function<void()> finished_;
    int percent_ = 0;     // shown last
    std::string flashed_; // in this run; empty: none yet
};

/// Whether two versions are the same one: the numbers count, not how they are written (1.2.3, 1.02.3, 1.2.3.0).
bool same_version(std::string_view a, std::string_view b);

} // namespace veld
