// What stands behind the model: a machine, a device in a file, a real device. The core asks, a backend answers.
#pragma once

#include "base/json_ref.h"
#include "veld/backend/job.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace veld
{

struct scheme;

/// What a backend can do for a node of the model.
enum class backend_use {
    read, ///< tell a parameter's value
    list, ///< tell a table's rows
    set,  ///< act when a parameter is set
    run   ///< run a method
};

/// Whether it does.
enum class backend_part {
    none,
    until_set, ///< until somebody sets the parameter
    always
};

/// What a device does as a whole. Each is done by the first backend that does it.
enum class backend_deed {
    examine, ///< tell what an image of a firmware is
    flash,   ///< put it into the device
    reboot
};

/// The file that an image of a firmware has arrived in.
struct firmware_image {
    std::string path;      ///< stays there until the image has been flashed, or is dropped
    std::string beginning; ///< its first bytes, at most so many
    std::string version;   ///< as examine() has found it

    static constexpr size_t beginning_max = 4096;
};

/// Hears how far something has got, from 0 to 100.
using progress_handler = std::function<void(int percent)>;

/// A value that is about to be stored. All are borrowed.
struct backend_change {
    const scheme *what;
    const std::string *path;
    json_t *value;
    json_t *before;
};

/// Daemon's thread only. What it is asked it answers at once: nothing waits meanwhile.
class device_backend
{
public:
    device_backend() = default;
    device_backend(const device_backend &) = delete;
    device_backend &operator=(const device_backend &) = delete;
    virtual ~device_backend() = default;

    /// Whether a model document may name this for that use: a provider of values or of rows, an implementation.
    virtual bool knows(backend_use use, std::string_view name) const = 0;
    /// Asked once for every node when the model is made. `path` is a name with "{i}" for each instance number.
    virtual backend_part serves(backend_use use, const scheme &what, const std::string &path) = 0;

    /// The value at the moment: null when there is nothing to tell, the parameter then has its default.
    virtual json_ref read(const scheme &what, const std::string &path) = 0;
    /// An array of objects {field: value}. Each has "#key", a text that no other row of the table has and that stays
    /// with the row as long as it exists; a table nested in it is "#rows:NAME". Null when there
    /// is nothing to tell: the rows stay as they were.
    virtual json_ref rows(const scheme &what, const std::string &path) = 0;
    /// Acts on the values of one request, before they are stored and acknowledged: on all of them or, when one is
    /// refused, on none. The fault is a phrase about the parameter at the place `*which` of the list.
    virtual fault apply(const std::vector<backend_change> &changes, size_t *which) = 0;
    /// A call, which the caller begins. `input` holds all arguments, nested as the model nests them, already checked;
    /// it is not kept. `text_of` gives the text of a parameter, and is called before run() returns only. Returns the
    /// job, or null when the call is refused, `*ended` then says why.
    virtual std::unique_ptr<job> run(const scheme &what, const std::string &path, const json_t *input,
                                     const std::function<std::string(std::string_view)> &text_of,
                                     job_outcome *ended) = 0;
    /// The device is about to do this: "Reboot", "FactoryReset", "Upgrade".
    virtual void announced(const std::string &action) = 0;

    // What is done only by backends that say so.
    virtual bool does(backend_deed) const { return false; }
    /// Of whoever flashes: the version that it has put into the device; empty where the model's own still runs.
    virtual std::string flashed_version() { return {}; }
    /// Whether this is an image for the device; finds out its version.
    virtual fault examine(firmware_image *) { return no_firmware(); }
    /// Flashes an image that has been examined; the caller begins the job. Breaking it off leaves the old version. The
    /// output of a job that fails may be an integer below 0, which UpgradeStatus then shows. The device reboots after
    /// it.
    virtual std::unique_ptr<job> flash(const firmware_image &, const progress_handler &)
    {
        return ended_job(no_firmware());
    }
    /// Reboots the device, whose clients have been parted with: the job, which the caller begins, ends when it is back.
    virtual std::unique_ptr<job> reboot(const std::string &) { return ended_job({}); }

private:
    static fault no_firmware() { return {code::not_supported, "this device takes no firmware"}; }
};

} // namespace veld
