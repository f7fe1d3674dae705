// Firmware, configurations and files that clients have the device fetch.
#pragma once

#include "veld/base/fault.h"
#include "veld/device/device.h"
#include "veld/firmware/fetch.h"
#include "veld/firmware/upgrade.h"
#include "veld/state/workspace.h"

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace veld
{

struct download_settings {
    uint64_t limit;   ///< bytes of one transfer
    int64_t stall_ms; ///< how long a transfer may stand still
};

/// A Download request; texts that were not given are empty.
struct download_request {
    std::string type = {}, url = {}, md5 = {}, target = {}, transaction = {};
    std::optional<uid_t> reader =
        {}; ///< who asks for it on this machine; nothing for somebody who comes over the network
};

class downloads
{
public:
    /// Images wait for their confirmation in the spool of `folders`, files are stored in its directory of files.
    downloads(loop &events, device &machine, upgrade &flash, workspace &folders, download_settings settings);
    downloads(const downloads &) = delete;
    downloads &operator=(const downloads &) = delete;
    ~downloads();

    /// What a request asks for: a transfer, which the caller begins and which is gone before this object; or null when
    /// it ended at once, `*ended` then tells how. What comes of it is the result of the answer.
    std::unique_ptr<job> request(const download_request &wanted, job_outcome *ended);
    /// The device goes down, and no transfer is left but those that cannot be cut off.
    void end_all();

private:
    class transfer;
    struct waiting_image {
        firmware_image what;
        std::string transaction;
    };

    struct nameless_file {
        std::string transaction; ///< empty: there is none
        dev_t device;
        ino_t number;
    };

    fault decide(const download_request &wanted);
    fault name_file(const std::string &name);
    std::string offer_name();
    fault check(const download_request &wanted, source_url *url, std::string *name) const;
    fault keep_file(spool *file, const std::string &name, bool named, json_ref *result);
    fault keep_image(spool *file, json_ref *result);
    void drop_image();
    void begin_flash();

    loop &loop_;
    device &device_;
    upgrade &flash_;
    workspace &folders_;
    download_settings settings_;
    worker files_;             // reads those of this machine
    worker reader_;            // reads configurations
    waiting_image image_;      // of no path: none waits
    nameless_file nameless_{}; // the file stored last whose request held no name for it
};

} // namespace veld
