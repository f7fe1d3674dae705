#include "veld/firmware/downloads.h"

#include "base/hex.h"
#include "base/json_write.h"
#include "veld/base/log.h"
#include "veld/base/value_size.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace veld
{

namespace
{

constexpr uint64_t configuration_limit = uint64_t{64} << 20;
constexpr size_t name_limit = 200;
constexpr const char *image_name = "firmware.image";
constexpr const char *nameless = "download";

fault bad_argument(const std::string &what)
{
    return {code::bad_arguments, what};
}

// A path may be no UTF-8.
json_t *json_text(const std::string &text)
{
    std::string written;
    json_write_string(&written, text);
    return json_loadb(written.data(), written.size(), JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr);
}

json_ref status(int number)
{
    return json_ref{json_pack("{s:i}", "Status", number)};
}

bool is_md5(const std::string &text)
{
    return text.size() == 32 && std::all_of(text.begin(), text.end(), [](unsigned char c) { return isxdigit(c) != 0; });
}

bool same_digits(const std::string &a, const std::string &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return tolower(x) == tolower(y); });
}

// A plain name within one directory: nothing that leads elsewhere, nothing hidden, no control characters.
bool good_file_name(const std::string &name)
{
    return !name.empty() && name.size() <= name_limit && name[0] != '.' &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) { return c >= 0x20 && c != 0x7f && c != '/'; });
}

} // namespace

downloads::downloads(loop &events, device &machine, upgrade &flash, workspace &folders, download_settings settings)
    : loop_(events), device_(machine), flash_(flash), folders_(folders), settings_(settings),
      files_(events, worker::at_end::abandon), reader_(events, worker::at_end::abandon)
{
    // An image from before a restart waits for nobody any more.
    if (!folders_.spool().empty())
        unlink((folders_.spool() + "/" + image_name).c_str());
    spool::sweep(folders_.spool());
    spool::sweep(folders_.files());
}

downloads::~downloads()
{
    drop_image();
}

void downloads::drop_image()
{
    if (!image_.what.path.empty())
        unlink(image_.what.path.c_str());
    image_ = {};
}

fault downloads::check(const download_request &wanted, source_url *url, std::string *name) const
{
    std::string error;
    if (!source_url_parse(wanted.url, url, &error))
        return bad_argument(error);
    if (!wanted.md5.empty() && !is_md5(wanted.md5))
        return bad_argument("\"MD5\" must be 32 hexadecimal digits");
    if (wanted.type == "Firmware" && flash_.busy())
        return {code::denied, "a firmware is being flashed", ""};
    *name = wanted.target.empty() ? source_url_file(*url) : wanted.target;
    if (wanted.type == "File" && !wanted.target.empty() && !good_file_name(wanted.target))
        return bad_argument("\"TargetFileName\" must be a plain file name");
    if (wanted.type == "File" && wanted.target.empty() && !good_file_name(*name))
        *name = nameless;
    return {};
}

// The second request about an image that waits, to flash it or to drop it, or about a file that has no name yet.
fault downloads::decide(const download_request &wanted)
{
    if (wanted.type == "File" && !nameless_.transaction.empty() && wanted.transaction == nameless_.transaction)
        return name_file(wanted.target);
    if (wanted.type != "Firmware")
        return bad_argument("only a firmware has a transaction");
    if (image_.what.path.empty() || wanted.transaction != image_.transaction)
        return bad_argument("no such transaction");
    if (wanted.url.empty()) {
        LOG_INFO("the upgrade to %s is cancelled", image_.what.version.c_str());
        drop_image();
        return {};
    }
    if (wanted.url != "file://" + image_.what.path)
        return bad_argument("\"URL\" must be the saved firmware");
    begin_flash();
    return {};
}

fault downloads::name_file(const std::string &name)
{
    if (!good_file_name(name))
        return bad_argument("\"TargetFileName\" must be a plain file name");
    const std::string stored = folders_.files() + "/" + nameless;
    struct stat now;
    if (lstat(stored.c_str(), &now) != 0 || now.st_dev != nameless_.device || now.st_ino != nameless_.number)
        return bad_argument("no such transaction");
    if (rename(stored.c_str(), (folders_.files() + "/" + name).c_str()) != 0)
        return {code::transfer_failed, name + ": " + strerror(errno), ""};
    nameless_.transaction.clear();
    return {};
}

// A URL of a file server holds no name: whoever serves the file may give it one in a second request.
std::string downloads::offer_name()
{
    struct stat now;
    if (lstat((folders_.files() + "/" + nameless).c_str(), &now) != 0)
        return {};
    nameless_ = {random_hex(16), now.st_dev, now.st_ino};
    return nameless_.transaction;
}

void downloads::begin_flash()
{
    image_.transaction.clear(); // good for one decision
    flash_.begin(image_.what, [this] { drop_image(); });
}

// One transfer: it fetches, checks what has arrived, and hands it on.
class downloads::transfer : public job
{
public:
    transfer(downloads *of, download_request wanted, source_url url, std::string name)
        : downloads_(*of), wanted_(std::move(wanted)), url_(std::move(url)), name_(std::move(name))
    {
    }

    // What has arrived may be on its way into the device.
    bool can_be_cut_off() const override { return !arrived_; }

protected:
    void proceed() override;

private:
    fault open();
    void arrived(const fault &problem);
    fault check_md5();
    void parse_configuration();
    void take_configuration(json_ref document, int line);
    void conclude(fault outcome, json_ref result);

    downloads &downloads_;
    download_request wanted_;
    source_url url_;
    std::string name_;
    std::shared_ptr<spool> file_ = std::make_shared<spool>(); // shared with the thread that reads it
    std::unique_ptr<fetch> source_;
    bool arrived_ = false;
};

void downloads::transfer::proceed()
{
    if (fault problem = open())
        return fail(std::move(problem));
    LOG_INFO("fetches %s from %.200s", wanted_.type.c_str(), wanted_.url.c_str());
    source_ = std::make_unique<fetch>(events(), downloads_.files_, std::move(url_), *file_,
                                      fetch_bounds{downloads_.settings_.stall_ms, wanted_.reader, account()},
                                      [this](const fault &problem) { arrived(problem); });
    source_->start();
}

fault downloads::transfer::open()
{
    workspace &folders = downloads_.folders_;
    const uint64_t most = downloads_.settings_.limit;
    std::string error;
    if (!folders.prepare(&error))
        return {code::internal, error};
    if (!file_->create(wanted_.type == "File" ? folders.files() : folders.spool(),
                       wanted_.type == "Config" ? std::min(configuration_limit, most) : most))
        return {code::internal, file_->error()};
    return {};
}

void downloads::transfer::arrived(const fault &problem)
{
    arrived_ = true;
    json_ref result = status(0);
    fault outcome = problem ? problem : check_md5();
    if (!outcome && wanted_.type == "Config")
        return parse_configuration();
    if (!outcome && wanted_.type == "Firmware")
        outcome = downloads_.keep_image(file_.get(), &result);
    else if (!outcome)
        outcome = downloads_.keep_file(file_.get(), name_, !wanted_.target.empty(), &result);
    conclude(std::move(outcome), std::move(result));
}

fault downloads::transfer::check_md5()
{
    const std::string md5 = file_->md5();
    if (wanted_.md5.empty() || same_digits(md5, wanted_.md5))
        return {};
    if (source_->confidential())
        return {code::bad_file, "the MD5 of what arrived is another"};
    return {code::bad_file, "the MD5 of what arrived is " + md5};
}

// A configuration may be large: it is read beside the loop.
void downloads::transfer::parse_configuration()
{
    struct parsing {
        bool too_many = false;
        json_ref document;
        int line = 0;
    };
    const auto work = std::make_shared<parsing>();
    downloads_.reader_.run(
        [file = file_, work] {
            const std::string text = file->content();
            work->too_many = size_as_values(text) > values_limit;
            if (work->too_many)
                return;
            json_error_t where{};
            work->document.reset(json_loadb(text.data(), text.size(), JSON_ALLOW_NUL | JSON_REJECT_DUPLICATES, &where));
            work->line = where.line;
        },
        [this, work] {
            if (!work->too_many)
                return take_configuration(std::move(work->document), work->line);
            const char *what =
                source_->confidential() ? "the configuration does not fit" : "the configuration has too many values";
            conclude({code::bad_file, what}, {});
        });
}

void downloads::transfer::take_configuration(json_ref document, int line)
{
    // What is said of a file that not everybody may read tells nothing of what is in it.
    const bool confidential = source_->confidential();
    if (!document) {
        const std::string place = confidential ? "" : ": line " + std::to_string(line);
        return conclude({code::bad_file, "the configuration is not JSON" + place}, {});
    }
    downloads_.device_.replace_configuration(std::move(document), [this, confidential](fault problem) {
        if (problem.code == code::bad_file && confidential)
            problem.message = "the configuration does not fit";
        conclude(std::move(problem), status(0));
    });
}

void downloads::transfer::conclude(fault outcome, json_ref result)
{
    if (!outcome)
        return succeed(std::move(result));
    LOG_WARNING("a download fails: %s", outcome.message.c_str());
    fail(std::move(outcome));
}

std::unique_ptr<job> downloads::request(const download_request &wanted, job_outcome *ended)
{
    const auto refuse = [ended](fault problem) {
        ended->problem = std::move(problem);
        return nullptr;
    };
    if (wanted.type != "Firmware" && wanted.type != "Config" && wanted.type != "File")
        return refuse(bad_argument("\"FileType\" must be \"Firmware\", \"Config\" or \"File\""));
    if (!wanted.transaction.empty()) {
        ended->output = status(0);
        return refuse(decide(wanted));
    }
    source_url url;
    std::string name;
    if (fault problem = check(wanted, &url, &name))
        return refuse(std::move(problem));
    return std::make_unique<transfer>(this, wanted, std::move(url), std::move(name));
}

fault downloads::keep_file(spool *file, const std::string &name, bool named, json_ref *result)
{
    if (!file->keep_as(name))
        return {code::transfer_failed, file->error()};
    if (!named && name == nameless) {
        if (const std::string transaction = offer_name(); !transaction.empty())
            json_object_set_new(result->get(), "TransactionID", json_string(transaction.c_str()));
    }
    LOG_INFO("stored %s (%llu bytes)", name.c_str(), static_cast<unsigned long long>(file->size()));
    return {};
}

fault downloads::keep_image(spool *file, json_ref *result)
{
    firmware_image image{folders_.spool() + "/" + image_name, file->beginning(firmware_image::beginning_max), ""};
    if (fault problem = flash_.examine(&image))
        return problem;
    if (flash_.busy())
        return {code::denied, "a firmware is being flashed"};
    const std::string current = flash_.version();
    const std::string transaction = random_hex(16);
    if (transaction.empty())
        return {code::internal, "no randomness for a transaction"};
    drop_image();
    if (!file->keep_as(image_name))
        return {code::internal, file->error()};
    image_ = {std::move(image), transaction};
    const bool same = same_version(image_.what.version, current);
    *result = status(same ? 0 : 1);
    json_object_set_new(result->get(), "CurrentVersion", json_text(current));
    json_object_set_new(result->get(), "NewVersion", json_text(image_.what.version));
    json_object_set_new(result->get(), "SavedFirmware", json_text(image_.what.path));
    json_object_set_new(result->get(), "TransactionID", json_text(transaction));
    if (same)
        begin_flash();
    return {};
}

void downloads::end_all()
{
    flash_.abort();
    drop_image();
}

} // namespace veld
