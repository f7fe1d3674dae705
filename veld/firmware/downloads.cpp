#include "veld/firmware/downloads.h"

#include "base/hex.h"
#include "base/json_write.h"
#include "veld/base/log.h"

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

constexpr size_t transfers_at_once = 8;
constexpr size_t transfers_of_users = 6; // the others are the owner's
constexpr size_t transfers_of_one_user = 2;
constexpr uint64_t configuration_limit = uint64_t{64} << 20;
constexpr size_t name_limit = 200;
constexpr const char *image_name = "firmware.image";
constexpr const char *nameless = "download";
constexpr const char *ok = "{\"Status\":0}";

fault bad_argument(const std::string &what)
{
    return {code::bad_arguments, what, ""};
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

downloads::downloads(loop &events, device &machine, flasher &flash, workspace &folders, download_settings settings)
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
    if (!image_.path.empty())
        unlink(image_.path.c_str());
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
    if (image_.path.empty() || wanted.transaction != image_.transaction)
        return bad_argument("no such transaction");
    if (wanted.url.empty()) {
        LOG_INFO("the upgrade to %s is cancelled", image_.header.version.c_str());
        drop_image();
        return {};
    }
    if (wanted.url != "file://" + image_.path)
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
void downloads::offer_name(std::string *result)
{
    struct stat now;
    if (lstat((folders_.files() + "/" + nameless).c_str(), &now) != 0)
        return;
    nameless_ = {random_hex(16), now.st_dev, now.st_ino};
    if (!nameless_.transaction.empty())
        *result = "{\"Status\":0,\"TransactionID\":\"" + nameless_.transaction + "\"}";
}

void downloads::begin_flash()
{
    const image_header header = image_.header;
    image_.transaction.clear(); // good for one decision
    flash_.begin(header, [this] { drop_image(); });
}

void downloads::request(const download_asker &asker, const download_request &wanted, done_handler done)
{
    if (wanted.type != "Firmware" && wanted.type != "Config" && wanted.type != "File")
        return done(bad_argument("\"FileType\" must be \"Firmware\", \"Config\" or \"File\""), "");
    if (!wanted.transaction.empty())
        return done(decide(wanted), ok);
    source_url url;
    std::string name;
    if (const fault problem = check(wanted, &url, &name))
        return done(problem, "");
    const auto own = std::count_if(transfers_.begin(), transfers_.end(),
                                   [&asker](const auto &one) { return one.second.asker.account == asker.account; });
    if (transfers_.size() >= (asker.owner ? transfers_at_once : transfers_of_users) ||
        static_cast<size_t>(own) >= transfers_of_one_user)
        return done({code::resources, "too many transfers are under way", ""}, "");

    transfer fresh{asker, wanted, std::make_unique<spool>(), nullptr, std::move(done)};
    const bool is_file = wanted.type == "File";
    const uint64_t limit = wanted.type == "Config" ? std::min(configuration_limit, settings_.limit) : settings_.limit;
    std::string error;
    if (!folders_.prepare(&error))
        return fresh.done({code::internal, error, ""}, "");
    if (!fresh.file->create(is_file ? folders_.files() : folders_.spool(), limit))
        return fresh.done({code::internal, fresh.file->error(), ""}, "");
    const uint64_t id = next_++;
    fresh.source =
        std::make_unique<fetch>(loop_, files_, std::move(url), *fresh.file, fetch_bounds{settings_.stall_ms, asker.uid},
                                [this, id, name](const fault &problem) { arrived(id, problem, name); });
    fresh.source->start();
    LOG_INFO("fetches %s from %.200s", wanted.type.c_str(), wanted.url.c_str());
    transfers_.emplace(id, std::move(fresh));
}

void downloads::arrived(uint64_t id, const fault &problem, const std::string &name)
{
    const auto found = transfers_.find(id);
    const auto ended = std::make_shared<transfer>(std::move(found->second));
    transfers_.erase(found);
    std::string result;
    fault outcome = problem ? problem : check_md5(*ended);
    if (!outcome && ended->wanted.type == "Config")
        return parse_configuration(ended);
    if (!outcome)
        outcome = finish(*ended, name, &result);
    conclude(*ended, outcome, result);
}

void downloads::conclude(transfer &what, const fault &outcome, const std::string &result)
{
    if (outcome)
        LOG_WARNING("a download fails: %s", outcome.message.c_str());
    // Nothing of it is left when the client hears of it.
    what.source.reset();
    what.file.reset();
    what.done(outcome, result);
}

fault downloads::check_md5(transfer &what)
{
    const std::string md5 = what.file->md5();
    if (what.wanted.md5.empty() || same_digits(md5, what.wanted.md5))
        return {};
    if (what.source->confidential())
        return {code::bad_file, "the MD5 of what arrived is another", ""};
    return {code::bad_file, "the MD5 of what arrived is " + md5, ""};
}

// A configuration may be large: it is read beside the loop.
void downloads::parse_configuration(const std::shared_ptr<transfer> &what)
{
    struct parsing {
        json_ref document;
        int line = 0;
    };
    const auto work = std::make_shared<parsing>();
    reader_.run(
        [what, work] {
            const std::string text = what->file->content();
            json_error_t where{};
            work->document.reset(json_loadb(text.data(), text.size(), JSON_ALLOW_NUL | JSON_REJECT_DUPLICATES, &where));
            work->line = where.line;
        },
        [this, what, work] {
            // What is said of a file that not everybody may read tells nothing of what is in it.
            const bool confidential = what->source->confidential();
            if (!work->document) {
                const std::string line = confidential ? "" : ": line " + std::to_string(work->line);
                return conclude(*what, {code::bad_file, "the configuration is not JSON" + line, ""}, "");
            }
            device_.replace_configuration(std::move(work->document), [this, what, confidential](fault problem) {
                if (problem.code == code::bad_file && confidential)
                    problem.message = "the configuration does not fit";
                conclude(*what, problem, ok);
            });
        });
}

fault downloads::finish(transfer &what, const std::string &name, std::string *result)
{
    *result = ok;
    if (what.wanted.type == "Firmware")
        return finish_firmware(what, result);
    if (!what.file->keep_as(name))
        return {code::transfer_failed, what.file->error(), ""};
    if (what.wanted.target.empty() && name == nameless)
        offer_name(result);
    LOG_INFO("stored %s (%llu bytes)", name.c_str(), static_cast<unsigned long long>(what.file->size()));
    return {};
}

fault downloads::finish_firmware(transfer &what, std::string *result)
{
    image_header header;
    std::string error;
    if (!image_header_parse(what.file->first_line(image_header_max + 1), &header, &error))
        return {code::bad_file, error, ""};
    if (flash_.busy())
        return {code::denied, "a firmware is being flashed", ""};
    const std::string current = flash_.version();
    const std::string transaction = random_hex(16);
    if (transaction.empty())
        return {code::internal, "no randomness for a transaction", ""};
    drop_image();
    if (!what.file->keep_as(image_name))
        return {code::internal, what.file->error(), ""};
    image_ = {header, folders_.spool() + "/" + image_name, transaction};
    const bool same = same_version(header.version, current);
    *result = same ? "{\"Status\":0,\"CurrentVersion\":" : "{\"Status\":1,\"CurrentVersion\":";
    json_write_string(result, current);
    *result += ",\"NewVersion\":";
    json_write_string(result, header.version);
    *result += ",\"SavedFirmware\":";
    json_write_string(result, image_.path);
    *result += ",\"TransactionID\":\"" + transaction + "\"}";
    if (same)
        begin_flash();
    return {};
}

void downloads::end(uint64_t client)
{
    std::erase_if(transfers_, [client](const auto &one) { return one.second.asker.client == client; });
}

void downloads::end_all()
{
    transfers_.clear();
    flash_.abort();
    drop_image();
}

} // namespace veld
