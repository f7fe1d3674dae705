// Flashing: the new firmware gets into the device over some seconds, which clients can watch.
#pragma once

#include "veld/base/loop.h"
#include "veld/device/device.h"
#include "veld/firmware/image.h"
#include "veld/model/tree.h"

namespace veld
{

class flasher
{
public:
    flasher(loop &events, tree &model, device &machine, int64_t flash_ms)
        : loop_(events), tree_(model), device_(machine), flash_ms_(flash_ms)
    {
    }
    flasher(const flasher &) = delete;
    flasher &operator=(const flasher &) = delete;

    /// Learns what was flashed before the daemon was started. False when that is saved and cannot be understood.
    bool start(const state_store &store, std::string *error);

    /// The version that runs: what was flashed last, else the model's own.
    std::string version();
    /// Shows the flashed version in a tree that is back in its factory state.
    void restore_version();

    bool busy() const { return timer_ != 0 || saving_; }
    /// Begins; the device reboots into the new version when it is done. `finished` is called at the end, however it
    /// ends.
    void begin(const image_header &image, std::function<void()> finished);
    /// The device goes down: what was under way is lost, and the old version stays.
    void abort();

private:
    void step();
    void ended(const fault &problem);
    void show(int64_t percent, int64_t status);

    loop &loop_;
    tree &tree_;
    device &device_;
    int64_t flash_ms_;
    std::string flashed_; // empty: none yet
    image_header image_;
    std::function<void()> finished_;
    int64_t started_ = 0;
    loop::timer_id timer_ = 0;
    bool saving_ = false; // the new version is on its way to the disk
};

} // namespace veld
