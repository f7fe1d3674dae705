// The device that the model stands for: it is up or down, and it keeps its configuration.
#pragma once

#include "veld/model/fault.h"
#include "veld/model/tree.h"
#include "veld/server/loop.h"
#include "veld/state/store.h"

#include <functional>

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
    };

    device(loop &events, tree &model, state_store &store, int64_t reboot_ms)
        : loop_(events), tree_(model), store_(store), reboot_ms_(reboot_ms)
    {
    }
    void connect(surroundings around) { around_ = std::move(around); }

    /// Lays the saved configuration over the tree.
    void start();

    fault save_configuration();
    /// Forgets what was saved and goes back to the factory state; the device stays up.
    fault factory_reset();
    /// Replaces the configuration by a document from outside, and saves it.
    fault replace_configuration(const json_t *document);
    /// Says what is coming and goes down: at once, or after a moment in which clients hear of it.
    void reboot(const char *action, bool force);

private:
    void go_down();
    void come_up();

    loop &loop_;
    tree &tree_;
    state_store &store_;
    int64_t reboot_ms_;
    surroundings around_;
    loop::timer_id grace_ = 0;
    bool up_ = true;
};

} // namespace veld
