// Flashing: the new firmware gets into the device over some seconds, which clients can watch.
#pragma once

#include "veld/device/device.h"
#include "veld/firmware/image.h"
#include "veld/model/tree.h"
#include "veld/server/loop.h"

namespace veld
{

class flasher
{
public:
    flasher(loop &events, tree &model, device &machine, state_store &store, int64_t flash_ms);
    flasher(const flasher &) = delete;
    flasher &operator=(const flasher &) = delete;

    /// The version that runs: what was flashed last, else the model's own.
    std::string version();
    /// Shows the flashed version in a tree that is back in its factory state.
    void restore_version();

    bool busy() const { return timer_ != 0; }
    /// Begins; the device reboots into the new version when it is done. `finished` is called at the end, however it
    /// ends.
    void begin(const image_header &image, std::function<void()> finished);
    /// The device goes down: what was under way is lost, and the old version stays.
    void abort();

private:
    void step();
    void show(int64_t percent, int64_t status);

    loop &loop_;
    tree &tree_;
    device &device_;
    state_store &store_;
    int64_t flash_ms_;
    std::string flashed_; // empty: none yet
    image_header image_;
    std::function<void()> finished_;
    int64_t started_ = 0;
    loop::timer_id timer_ = 0;
};

} // namespace veld
