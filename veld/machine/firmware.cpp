#include "veld/machine/firmware.h"

#include "base/clock.h"
#include "veld/machine/image.h"

#include <algorithm>

namespace veld
{

namespace
{

constexpr const char *firmware_file = "firmware.json";
constexpr const char *version_key = "SoftwareVersion";
constexpr int64_t step_ms = 50;
constexpr int failing_percent = 50;

bool read_header(const firmware_image &image, image_header *into, std::string *error)
{
    const std::string beginning = image.beginning.substr(0, image_header_max + 1);
    const size_t feed = beginning.find('\n');
    return image_header_parse(feed == std::string::npos ? std::string{} : beginning.substr(0, feed), into, error);
}

} // namespace

/// Counts the time, then saves the new version; what is on its way to the disk cannot be broken off.
class machine_firmware::flash_job : public job
{
public:
    flash_job(const machine_firmware &of, image_header image, progress_handler progress)
        : store_(of.store_), disk_(of.disk_), flash_ms_(of.flash_ms_), flashed_(of.flashed_), image_(std::move(image)),
          progress_(std::move(progress))
    {
    }

    bool can_be_cut_off() const override { return !saving_; }

protected:
    void proceed() override;

private:
    void save();

    state_store &store_;
    worker &disk_;
    int64_t flash_ms_;
    std::shared_ptr<std::string> flashed_;
    image_header image_;
    progress_handler progress_;
    int64_t started_ = monotonic_ms();
    bool saving_ = false;
};

void machine_firmware::flash_job::proceed()
{
    const int64_t passed = monotonic_ms() - started_;
    const int percent = flash_ms_ > 0 ? static_cast<int>(std::min<int64_t>(passed * 100 / flash_ms_, 100)) : 100;
    if (image_.failure != 0 && percent >= failing_percent) {
        progress_(failing_percent);
        return fail({code::internal, "the image is one that fails"}, json_ref{json_integer(image_.failure)});
    }
    if (percent == 100)
        return save();
    progress_(percent);
    wake_in(step_ms);
}

void machine_firmware::flash_job::save()
{
    struct saving {
        json_ref document{json_object()};
        std::string error;
        bool saved = false;
    };
    saving_ = true;
    const auto work = std::make_shared<saving>();
    json_object_set_new(work->document.get(), version_key, json_string(image_.version.c_str()));
    disk_.run([&store = store_, work] { work->saved = store.save(firmware_file, work->document.get(), &work->error); },
              [this, work] {
                  progress_(100);
                  if (!work->saved)
                      return fail({code::internal, "cannot be saved: " + work->error}, {});
                  *flashed_ = image_.version;
                  succeed({});
              });
}

bool machine_firmware::load(std::string *error)
{
    json_ref saved;
    if (!store_.load(firmware_file, &saved, error))
        return false;
    const json_t *version = json_object_get(saved.get(), version_key);
    if (json_is_string(version))
        *flashed_ = json_string_value(version);
    else if (saved)
        *error = store_.place(firmware_file) + ": names no version";
    return !saved || json_is_string(version);
}

fault machine_firmware::examine(firmware_image *image)
{
    image_header header;
    std::string error;
    if (!read_header(*image, &header, &error))
        return {code::bad_file, error};
    image->version = header.version;
    return {};
}

std::unique_ptr<job> machine_firmware::flash(const firmware_image &image, const progress_handler &progress)
{
    // Whoever examines images may be somebody else, and have other ones.
    image_header header;
    std::string no_image_of_ours;
    if (!read_header(image, &header, &no_image_of_ours))
        header = {};
    header.version = image.version;
    return std::make_unique<flash_job>(*this, std::move(header), progress);
}

} // namespace veld
