// The device that the model stands for: it is up or down, and it keeps its configuration.
#pragma once

#include "veld/base/fault.h"
#include "veld/base/job.h"
#include "veld/base/loop.h"
#include "veld/base/worker.h"
#include "veld/model/tree.h"
#include "veld/state/store.h"

#include <functional>
#include <memory>
#include <string>

namespace veld
{

class device
{
public:
    /// What the rest of the daemon does as the device comes and goes.
    struct surroundings {
        std::function<void(const char *action)> announce; ///< tell the clients: "Reboot", "FactoryReset", "Upgrade"
        std::function<void()> went_down;                  ///< part with every client
        std::function<void()> came_up;
        /// The model's nodes are others now; `before` are those that were there until now.
        std::function<void(const node *before)> replaced;
        /// The device cannot come up again, and why.
        std::function<void(const std::string &why)> broke;
    };
    using done_handler = std::function<void(const fault &)>;

    /// `disk` does what waits for the disk, in the order in which it is asked to.
    device(loop &events, tree &model, state_store &store, worker &disk)
        : loop_(events), tree_(model), store_(store), disk_(disk)
    {
    }
    void connect(surroundings around) { around_ = std::move(around); }

    /// Lays the saved configuration over the tree. False when there is one that cannot be understood: the device must
    /// not open, it would be a fresh one with everybody's passwords.
    bool start(std::string *error);

    // Each calls `done` once, later, when the disk has it.
    void save_configuration(done_handler done);
    /// Forgets what was saved and goes back to the factory state; the device stays up.
    void factory_reset(done_handler done);
    /// Replaces the configuration by a document from outside, and saves it.
    void replace_configuration(json_ref document, done_handler done);
    /// Says what is coming and goes down: at once, or after a moment in which clients hear of it. What is behind the
    /// model then reboots.
    void reboot(const char *action, bool force);

private:
    void save(json_ref document, done_handler done);
    void go_down();
    void come_up();
    bool restore(const json_t *saved, std::string *error);

    loop &loop_;
    tree &tree_;
    state_store &store_;
    worker &disk_;
    surroundings around_;
    loop::timer_id grace_ = 0;
    std::string action_;             // of the reboot
    std::unique_ptr<job> rebooting_; // while the device is down
    bool up_ = true;
    bool partly_understood_ = false; // the saved configuration holds what the model does not know
};

} // namespace veld
