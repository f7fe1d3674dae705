// Firmware, from the image to the reboot, with a backend that does as it is told, and with the machine's own.
#include "veld_core_small_model.h"

#include "base/json_write.h"
#include "veld/backend/backends.h"
#include "veld/firmware/downloads.h"
#include "veld/firmware/fetch.h"
#include "veld/firmware/upgrade.h"
#include "veld/machine/machine.h"
#include "veld/model/document.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <sys/stat.h>
#include <unistd.h>

using namespace veld;

namespace
{

const char *const model_text = R"({"format": 1, "root": {"Device": {"children": {"DeviceInfo": {"children": {
  "SoftwareVersion": {"type": "string", "default": "1.0.0"},
  "UpgradeProgress": {"type": "unsignedInt", "default": 0},
  "UpgradeStatus": {"type": "int", "default": 0}}}}}}})";

// A job whose end the test decides.
struct held_job : job {
    bool cuttable = true;
    bool *gone = nullptr;
    ~held_job() override
    {
        if (gone != nullptr)
            *gone = true;
    }
    void proceed() override {}
    bool can_be_cut_off() const override { return cuttable; }
    using job::fail;
    using job::succeed;
};

struct told_backend : veld_test::live_backend {
    told_backend() : live_backend({}) {}
    bool does(backend_deed deed) const override { return deed != backend_deed::reboot || reboots; }
    fault examine(firmware_image *image) override
    {
        image->version = image->beginning;
        return refusal;
    }
    std::unique_ptr<job> flash(const firmware_image &image, const progress_handler &handler) override
    {
        version = image.version;
        progress = handler;
        auto made = std::make_unique<held_job>();
        flashing = made.get();
        return made;
    }
    std::unique_ptr<job> reboot(const std::string &action) override
    {
        rebooted = action;
        auto made = std::make_unique<held_job>();
        rebooting = made.get();
        return made;
    }

    bool reboots = true;
    fault refusal;
    std::string version, rebooted;
    progress_handler progress;
    held_job *flashing = nullptr;
    held_job *rebooting = nullptr;
};

struct VeldUpgrade : testing::Test {
    void SetUp() override
    {
        const json_ref document{json_loads(model_text, 0, nullptr)};
        model = document_tree(document.get(), &behind, &error);
        ASSERT_TRUE(model) << error;
        machine = std::make_unique<device>(events, *model, store, disk);
        flash = std::make_unique<upgrade>(events, *model, *machine);
        model->on_reset([this] { flash->restore_version(); });
        machine->connect({[this](const char *action) { happened += std::string("announce ") + action + ", "; },
                          [this] { happened += "down, "; },
                          [this] {
                              happened += "up, ";
                              events.stop();
                          },
                          [](const node *) {},
                          [this](const std::string &why) {
                              happened += "broke " + why;
                              events.stop();
                          }});
        ASSERT_TRUE(machine->start(&error)) << error;
    }
    int64_t number(const char *name)
    {
        const place found = model->find(std::string("Device.DeviceInfo.") + name);
        return json_integer_value(model->value(found.at).get());
    }
    void begin(const char *version)
    {
        flash->begin({"/image", version, version}, [this] { happened += "finished, "; });
    }

    loop events;
    state_store store;
    worker disk{events, worker::at_end::finish};
    told_backend own;
    backends behind{{&own}};
    std::unique_ptr<tree> model;
    std::unique_ptr<device> machine;
    std::unique_ptr<upgrade> flash;
    std::string error, happened;
};

TEST_F(VeldUpgrade, GoesFromTheImageOverTheRebootToTheNewVersion)
{
    EXPECT_EQ(flash->version(), "1.0.0");
    begin("2.0.0");
    EXPECT_TRUE(flash->busy());
    EXPECT_EQ(own.version, "2.0.0");
    EXPECT_EQ(number("UpgradeStatus"), 1);
    own.progress(40);
    EXPECT_EQ(number("UpgradeProgress"), 40);
    own.flashing->succeed({});
    EXPECT_FALSE(flash->busy());
    EXPECT_EQ(number("UpgradeProgress"), 100);
    EXPECT_EQ(happened, "announce Upgrade, finished, ");
    EXPECT_EQ(flash->version(), "1.0.0");
    machine->reboot("Upgrade", true);
    events.post([this] { events.post([this] { own.rebooting->succeed({}); }); });
    events.run();
    EXPECT_EQ(own.rebooted, "Upgrade");
    EXPECT_EQ(happened, "announce Upgrade, finished, down, up, ");
    EXPECT_EQ(flash->version(), "2.0.0");
    EXPECT_EQ(number("UpgradeStatus"), 0);
}

TEST_F(VeldUpgrade, AFailureStaysToBeSeenAndTheDeviceStaysUp)
{
    begin("2.0.0");
    own.progress(30);
    own.flashing->fail({code::internal, "no room"}, json_ref{json_integer(-7)});
    EXPECT_EQ(number("UpgradeProgress"), 30);
    EXPECT_EQ(number("UpgradeStatus"), -7);
    begin("2.0.0");
    own.flashing->fail({code::internal, "no room"});
    EXPECT_EQ(number("UpgradeStatus"), -1);
    EXPECT_EQ(happened, "finished, finished, ");
    EXPECT_EQ(flash->version(), "1.0.0");
}

TEST_F(VeldUpgrade, IsCutOffOnlyWhereItMayBe)
{
    bool gone = false;
    begin("2.0.0");
    own.flashing->gone = &gone;
    own.flashing->cuttable = false;
    flash->abort();
    EXPECT_TRUE(flash->busy());
    own.flashing->cuttable = true;
    flash->abort();
    EXPECT_TRUE(gone);
    EXPECT_FALSE(flash->busy());
    EXPECT_EQ(happened, "finished, ");
    flash->abort();
    EXPECT_EQ(happened, "finished, ");
}

TEST_F(VeldUpgrade, ARebootThatFailsLeavesTheDeviceUp)
{
    machine->reboot("Reboot", true);
    events.post([this] { events.post([this] { own.rebooting->fail({code::internal, "stuck"}); }); });
    events.run();
    EXPECT_EQ(happened, "announce Reboot, down, up, ");
}

TEST_F(VeldUpgrade, WhoeverDoesNotRebootIsBackAtOnce)
{
    own.reboots = false;
    machine->reboot("Reboot", true);
    events.run();
    EXPECT_EQ(happened, "announce Reboot, down, up, ");
    EXPECT_EQ(own.rebooted, "");
}

TEST_F(VeldUpgrade, WhileTheDeviceIsDownNothingHappensToIt)
{
    // The disk is busy until it goes down: what was to be saved before that comes too late.
    std::promise<void> free;
    disk.run([&free] { free.get_future().wait(); });
    std::string told;
    const auto tell = [&told](const fault &problem) { told += problem.message + ", "; };
    const auto document = [] { return json_ref{json_loads(R"({"veld-config":1,"config":{}})", 0, nullptr)}; };
    begin("2.0.0");
    machine->replace_configuration(document(), tell);
    machine->reboot("Reboot", true);
    events.post([&] {
        EXPECT_EQ(happened, "announce Reboot, down, ");
        machine->replace_configuration(document(), tell);
        EXPECT_EQ(told, "the device goes down, ") << "before anything is saved";
        machine->reboot("Reboot", true);
        own.flashing->succeed({}); // which cannot be cut off; the reboot that follows it is under way
        free.set_value();
        disk.run([] {}, [this] { own.rebooting->succeed({}); });
    });
    events.run();
    EXPECT_EQ(told, "the device goes down, the device goes down, ");
    EXPECT_EQ(happened, "announce Reboot, down, finished, up, ");
    EXPECT_EQ(flash->version(), "2.0.0");
}

TEST_F(VeldUpgrade, WithoutAFirmwareThereIsNone)
{
    veld_test::live_backend bare({});
    backends none{{&bare}};
    firmware_image image;
    EXPECT_EQ(none.examine(&image).code, code::not_supported);
    EXPECT_EQ(none.flashed_version(), "");
    fault told;
    none.flash(image, nullptr)->begin(events, [&](job_outcome &outcome) { told = outcome.problem; });
    EXPECT_EQ(told.message, "this device takes no firmware");
}

// --- the machine's ---

struct VeldMachineFirmware : testing::Test {
    void SetUp() override
    {
        ASSERT_TRUE(store.open(folder + "/state", &error)) << error;
        ASSERT_TRUE(own.open(store, disk, {0, 0}, &error)) << error;
    }
    ~VeldMachineFirmware() override { std::filesystem::remove_all(folder); }
    static std::string make_folder()
    {
        std::string name = testing::TempDir() + "veld-XXXXXX";
        return mkdtemp(name.data());
    }
    job_outcome flashed(const std::string &header)
    {
        firmware_image image{"", header + "\n", ""};
        job_outcome outcome;
        outcome.problem = own.examine(&image);
        if (outcome.problem)
            return outcome;
        const std::unique_ptr<job> flashing = own.flash(image, [this](int percent) { shown = percent; });
        bool over = false;
        flashing->begin(events, [&](job_outcome &ended) {
            outcome = std::move(ended);
            over = true;
            events.stop();
        });
        if (!over)
            events.run();
        return outcome;
    }

    std::string folder = make_folder();
    loop events;
    state_store store;
    worker disk{events, worker::at_end::finish};
    machine_backend own;
    std::string error;
    int shown = 0;
};

TEST_F(VeldMachineFirmware, RemembersWhatWasFlashed)
{
    EXPECT_EQ(own.flashed_version(), "");
    EXPECT_FALSE(flashed("VELD-FIRMWARE 1 BOX-2.0.0").problem);
    EXPECT_EQ(shown, 100);
    EXPECT_EQ(own.flashed_version(), "BOX-2.0.0");
    machine_backend later;
    ASSERT_TRUE(later.open(store, disk, {0, 0}, &error));
    EXPECT_EQ(later.flashed_version(), "BOX-2.0.0");
}

TEST_F(VeldMachineFirmware, FailsAsTheImageSays)
{
    const job_outcome outcome = flashed("VELD-FIRMWARE 1 2.0.0 fail=-3");
    EXPECT_TRUE(outcome.problem);
    EXPECT_EQ(json_integer_value(outcome.output.get()), -3);
    EXPECT_EQ(shown, 50);
    EXPECT_EQ(flashed("PK").problem.code, code::bad_file);
    EXPECT_EQ(own.flashed_version(), "");
}

TEST_F(VeldMachineFirmware, ADiskThatTakesNothingKeepsTheOldVersion)
{
    // What is there under the new file's name cannot go.
    std::filesystem::create_directory(folder + "/state/firmware.json.new");
    const job_outcome outcome = flashed("VELD-FIRMWARE 1 2.0.0");
    EXPECT_TRUE(outcome.problem.message.starts_with("cannot be saved: ")) << outcome.problem.message;
    EXPECT_EQ(own.flashed_version(), "");
}

TEST_F(VeldMachineFirmware, WhatWasKeptAndCannotBeUnderstoodIsSaid)
{
    for (const char *text : {"{", "{}", "{\"SoftwareVersion\": 7}"}) {
        std::ofstream(folder + "/state/firmware.json") << text;
        machine_backend later;
        error.clear();
        EXPECT_FALSE(later.open(store, disk, {0, 0}, &error)) << text;
        EXPECT_NE(error.find("firmware.json: "), std::string::npos) << error;
    }
}

// --- downloads ---

struct VeldDownloads : VeldUpgrade {
    void SetUp() override
    {
        VeldUpgrade::SetUp();
        ASSERT_TRUE(folders.open("", folder + "/files", &error)) << error;
        fetching = std::make_unique<downloads>(events, *machine, *flash, folders, download_settings{1000, 5000});
    }
    ~VeldDownloads() override { std::filesystem::remove_all(folder); }
    std::string file(const std::string &content)
    {
        std::ofstream(folder + "/source") << content;
        return "file://" + folder + "/source";
    }
    job_outcome request(download_request wanted)
    {
        wanted.reader = geteuid();
        job_outcome outcome;
        const std::unique_ptr<job> transfer = fetching->request(wanted, &outcome);
        if (!transfer)
            return outcome;
        loop::timer_id late = events.after(30000, [this] { events.stop(); });
        bool over = false;
        transfer->begin(events, [&](job_outcome &ended) {
            outcome = std::move(ended);
            over = true;
            // The loop of a test runs once.
            EXPECT_FALSE(ran_);
            events.stop();
        });
        if (!over)
            events.run();
        ran_ = true;
        events.cancel(late);
        EXPECT_TRUE(over);
        return outcome;
    }
    std::string result(const job_outcome &of) { return json_written(of.output.get(), JSON_COMPACT); }

    std::string folder = VeldMachineFirmware::make_folder();
    workspace folders;
    std::unique_ptr<downloads> fetching;
    bool ran_ = false;
};

TEST_F(VeldDownloads, AFirmwareWaitsForItsConfirmation)
{
    const job_outcome offered = request({.type = "Firmware", .url = file("2.0.0")});
    ASSERT_FALSE(offered.problem) << offered.problem.message;
    EXPECT_TRUE(
        result(offered).starts_with(R"({"Status":1,"CurrentVersion":"1.0.0","NewVersion":"2.0.0","SavedFirmware":")"))
        << result(offered);
    const std::string id = json_string_value(json_object_get(offered.output.get(), "TransactionID"));
    const std::string saved = json_string_value(json_object_get(offered.output.get(), "SavedFirmware"));
    EXPECT_EQ(request({.type = "Firmware", .url = "file:///elsewhere", .transaction = id}).problem.code,
              code::bad_arguments);
    EXPECT_FALSE(flash->busy());
    EXPECT_EQ(result(request({.type = "Firmware", .url = "file://" + saved, .transaction = id})), R"({"Status":0})");
    EXPECT_TRUE(flash->busy());
    EXPECT_EQ(request({.type = "Firmware", .url = "file:///x"}).problem.message, "a firmware is being flashed");
    EXPECT_TRUE(std::filesystem::exists(saved));
    own.flashing->succeed({});
    EXPECT_FALSE(std::filesystem::exists(saved));
}

TEST_F(VeldDownloads, WhatIsNoImageIsRefusedAsTheBackendSays)
{
    own.refusal = {code::bad_file, "not for this device"};
    const job_outcome outcome = request({.type = "Firmware", .url = file("x")});
    EXPECT_EQ(outcome.problem.code, code::bad_file);
    EXPECT_EQ(outcome.problem.message, "not for this device");
}

TEST_F(VeldDownloads, AnImageThatComesWhileOneIsFlashedIsDropped)
{
    events.post([this] { begin("9.0.0"); }); // asked for before
    const job_outcome outcome = request({.type = "Firmware", .url = file("2.0.0")});
    EXPECT_EQ(outcome.problem.message, "a firmware is being flashed");
    EXPECT_EQ(own.version, "9.0.0");
    EXPECT_EQ(request({.type = "Firmware", .url = file("2.0.0")}).problem.message, "a firmware is being flashed");
}

TEST_F(VeldDownloads, OfAFilesOwnUserAndOfEverybodyItMayBeTaken)
{
    const std::string url = file("x");
    const std::string path = folder + "/source";
    const uid_t owner = 12345, other = 12346;
    if (chown(path.c_str(), owner, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "this needs root";
    const auto refusal = [&](uid_t reader, mode_t file_mode, mode_t folder_mode) {
        EXPECT_EQ(chmod(path.c_str(), file_mode) | chmod(folder.c_str(), folder_mode), 0);
        spool into;
        EXPECT_TRUE(into.create(folder, 1000));
        std::string problem = "nothing";
        loop own_loop;
        worker own_disk(own_loop, worker::at_end::finish);
        source_url from;
        EXPECT_TRUE(source_url_parse(url, &from, &error)) << error;
        fetch one(own_loop, own_disk, from, into, {1000, reader}, [&](const fault &ended) {
            problem = ended.message;
            own_loop.stop();
        });
        one.start();
        own_loop.run();
        return problem;
    };
    EXPECT_EQ(refusal(owner, 0600, 0700), "");
    EXPECT_EQ(refusal(other, 0600, 0755), path + ": cannot be read");
    EXPECT_EQ(refusal(other, 0604, 0755), "");
    EXPECT_EQ(refusal(other, 0604, 0700), path + ": cannot be read") << "its folder may not be entered";
}

TEST_F(VeldDownloads, MoreThanTheLimitIsRefused)
{
    const job_outcome outcome = request({.type = "File", .url = file(std::string(1001, 'x')), .target = "f"});
    EXPECT_EQ(outcome.problem.code, code::transfer_failed);
    EXPECT_EQ(outcome.problem.message, "larger than 1000 bytes");
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/files"));
}

TEST_F(VeldDownloads, WhereNothingCanBeStoredThatIsSaid)
{
    std::filesystem::remove_all(folder + "/files");
    std::ofstream(folder + "/files") << "in the way";
    const job_outcome outcome = request({.type = "File", .url = file("x"), .target = "f"});
    EXPECT_EQ(outcome.problem.code, code::internal) << outcome.problem.message;
}

TEST_F(VeldDownloads, ATargetThatIsADirectoryStaysOne)
{
    std::filesystem::create_directories(folder + "/files/f");
    const job_outcome outcome = request({.type = "File", .url = file("x"), .target = "f"});
    EXPECT_EQ(outcome.problem.code, code::transfer_failed);
    EXPECT_TRUE(std::filesystem::is_directory(folder + "/files/f"));
}

TEST_F(VeldDownloads, AnotherMd5IsTold)
{
    const job_outcome outcome = request({.type = "File", .url = file("x"), .md5 = std::string(32, '0'), .target = "f"});
    EXPECT_EQ(outcome.problem.message, "the MD5 of what arrived is 9dd4e461268c8034f5c8564e155c67a6");
}

TEST_F(VeldDownloads, AConfigurationThatCannotBeReadSaysItsLine)
{
    const job_outcome outcome = request({.type = "Config", .url = file("{\n\n!")});
    EXPECT_EQ(outcome.problem.message, "the configuration is not JSON: line 3");
}

TEST_F(VeldDownloads, AJobThatIsDestroyedLeavesNothing)
{
    job_outcome outcome;
    std::unique_ptr<job> transfer =
        fetching->request({.type = "File", .url = file("x"), .target = "f", .reader = geteuid()}, &outcome);
    ASSERT_TRUE(transfer);
    transfer->begin(events, [](job_outcome &) { ADD_FAILURE() << "nobody is interested"; });
    EXPECT_FALSE(std::filesystem::is_empty(folder + "/files"));
    transfer.reset();
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/files"));
    events.after(5, [this] { events.stop(); });
    events.run();
}

} // namespace
