// A device in a file: a Lua program that says what reading, setting and calling do.
#pragma once

#include "veld/backend/backend.h"
#include "veld/behaviour/sandbox.h"

#include <map>
#include <string>

namespace veld
{

/// What the daemon does for a behaviour. Each is there once the device is.
struct behaviour_host {
    std::function<void()> begin;                          ///< a call comes that is no part of a request
    std::function<json_ref(const std::string &path)> get; ///< null: no such parameter
    /// Stores a value, whoever may write it, and tells the clients. Returns what is wrong, or an empty text.
    std::function<std::string(const std::string &path, json_t *value)> set;
    std::function<void(int64_t group, json_t *value)> event; ///< `value` null: none
    std::function<uint64_t(int64_t milliseconds, std::function<void()> call)> after;
    std::function<void(uint64_t timer)> cancel;
};

class behaviour : public device_backend
{
public:
    /// Runs the file, which says what it serves. Null when that fails; `*error` says why.
    static std::unique_ptr<behaviour> load(const std::string &path, bool trusted, std::string *error);
    ~behaviour() override;

    /// After the model has been made: whether all that it wants to serve is there.
    bool fits(std::string *error) const;
    /// The device is there: timers begin to run.
    void connect(behaviour_host host);

    bool knows(backend_use use, std::string_view name) const override;
    backend_part serves(backend_use use, const scheme &what, const std::string &path) override;
    json_ref read(const scheme &what, const std::string &path) override;
    json_ref rows(const scheme &what, const std::string &path) override;
    fault apply(const std::vector<backend_change> &changes, size_t *which) override;
    std::unique_ptr<job> run(const scheme &what, const std::string &path, const json_t *input,
                             const std::function<std::string(std::string_view)> &text_of, job_outcome *ended) override;
    void announced(const std::string &action) override;
    bool does(backend_deed deed) const override;
    fault examine(firmware_image *image) override;
    std::unique_ptr<job> flash(const firmware_image &image, const progress_handler &progress) override;
    std::unique_ptr<job> reboot(const std::string &action) override;

private:
    friend class behaviour_call;

    struct handler {
        int function; // a reference
        bool used = false;
        bool failing = false; // it has been said
    };
    struct timer {
        int function;
        int64_t every_ms; // negative: once, after as long
        uint64_t waiting;
    };
    /// One call of a function, as the Lua side of it sees it.
    struct invocation {
        int function;
        const std::string *path; // null: none
        const json_t *value;     // null: none
        json_t *result;
        const char *problem;
    };

    behaviour(std::string name, bool trusted);

    bool run_file(const std::string &path, std::string *error);
    /// Calls a function with a path and a value; `*result` receives what it gives back. False when it raised.
    bool invoke(int function, const std::string *path, const json_t *value, json_ref *result, std::string *error);
    bool protect(int arguments, std::string *error);
    std::string error_of(lua_State *in);
    void complain(handler *of, const std::string &path, const std::string &error);
    void start_timer(int64_t id);
    void ring(int64_t id);
    json_ref of_type(const scheme &what, json_ref value) const;

    static behaviour *self(lua_State *in);
    static int invoked(lua_State *in);
    static int lua_handler(lua_State *in);
    static int lua_timer(lua_State *in);
    static int lua_cancel(lua_State *in);
    static int lua_get(lua_State *in);
    static int lua_set(lua_State *in);
    static int lua_event(lua_State *in);
    static int lua_log(lua_State *in);
    static int lua_refuse(lua_State *in);
    static int lua_sleep(lua_State *in);
    static int lua_progress(lua_State *in);
    static int open(lua_State *in);

    std::string name_; // of the file, as the log calls it
    behaviour_host host_;
    bool connected_ = false;
    int nested_ = 0;
    std::map<std::string, handler> handlers_[4]; // by use, then by path with "{i}"
    // Global functions, as references; 0: the file has none.
    int on_reboot_ = 0;
    int on_restart_ = 0;
    int on_image_ = 0;
    int on_flash_ = 0;
    std::map<int64_t, timer> timers_;
    int64_t next_timer_ = 1;
    json_ref scratch_; // what a Lua function is about to push, kept where raising does not lose it
    std::string path_;
    std::string text_;
    fault refusal_;
    int64_t sleep_ms_ = -1;                      // what the call that runs has asked for
    const progress_handler *progress_ = nullptr; // of the call that runs; null: nobody wants to hear of it
    sandbox box_;                                // goes before the rest, which finalizers may still touch
    lua_State *current_;                         // the innermost one that runs
};

} // namespace veld
