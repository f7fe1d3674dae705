// Firmware, configurations and files that clients have the device fetch.
#pragma once

#include "veld/device/device.h"
#include "veld/firmware/fetch.h"
#include "veld/firmware/flash.h"
#include "veld/model/fault.h"
#include "veld/state/workspace.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unordered_map>

namespace veld
{

struct download_settings {
    uint64_t limit;   ///< bytes of one transfer
    int64_t stall_ms; ///< how long a transfer may stand still
};

/// Who asks for a download.
struct download_asker {
    uint64_t client;
    std::string account;      ///< whose limits count
    bool owner;               ///< root, or the user that the daemon runs as
    std::optional<uid_t> uid; ///< on this machine; nothing for somebody who comes over the network
};

/// A Download request; texts that were not given are empty.
struct download_request {
    std::string type, url, md5, target, transaction;
};

class downloads
{
public:
    /// The fault, or the result as JSON text.
    using done_handler = std::function<void(const fault &, const std::string &result)>;

    /// Images wait for their confirmation in the spool of `folders`, files are stored in its directory of files.
    downloads(loop &events, device &machine, flasher &flash, workspace &folders, download_settings settings);
    downloads(const downloads &) = delete;
    downloads &operator=(const downloads &) = delete;
    ~downloads();

    /// Takes a request of a client; `done` is called once, perhaps much later, or never when the client goes first.
    void request(const download_asker &asker, const download_request &wanted, done_handler done);
    /// Ends what is under way for a client that is gone.
    void end(uint64_t client);
    /// The device goes down.
    void end_all();

private:
    struct transfer {
        download_asker asker;
        download_request wanted;
        std::unique_ptr<spool> file;
        std::unique_ptr<fetch> source;
        done_handler done;
    };
    struct waiting_image {
        image_header header;
        std::string path;
        std::string transaction;
    };

    struct nameless_file {
        std::string transaction; ///< empty: there is none
        dev_t device;
        ino_t number;
    };

    fault decide(const download_request &wanted);
    fault name_file(const std::string &name);
    void offer_name(std::string *result);
    fault check(const download_request &wanted, source_url *url, std::string *name) const;
    void parse_configuration(const std::shared_ptr<transfer> &what);
    void arrived(uint64_t id, const fault &problem, const std::string &name);
    void conclude(transfer &what, const fault &outcome, const std::string &result);
    static fault check_md5(transfer &what);
    fault finish(transfer &what, const std::string &name, std::string *result);
    fault finish_firmware(transfer &what, std::string *result);
    void drop_image();
    void begin_flash();

    loop &loop_;
    device &device_;
    flasher &flash_;
    workspace &folders_;
    download_settings settings_;
    worker files_;  // reads those of this machine
    worker reader_; // reads configurations
    uint64_t next_ = 1;
    std::unordered_map<uint64_t, transfer> transfers_;
    waiting_image image_;      // of no path: none waits
    nameless_file nameless_{}; // the file stored last whose request held no name for it
};

} // namespace veld
