// A daemon inside the test program: answers what the test says and remembers what it was asked.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/framing.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_out.h"
#include "platform/ve_wait.h"

class scripted_daemon
{
public:
    /// The answer's "result" or "error" member for a request, a new reference; null closes the connection.
    using answerer = std::function<json_t *(const json_t *params)>;

    scripted_daemon()
    {
        char folder[] = "/tmp/kest-unit-XXXXXX";
        folder_ = mkdtemp(folder);
        path_ = folder_ + "/daemon";
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        strcpy(address.sun_path, path_.c_str());
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        EXPECT_EQ(pipe(stop_), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~scripted_daemon()
    {
        EXPECT_EQ(write(stop_[1], "", 1), 1);
        thread_.join();
        for (const int fd : {listener_, stop_[0], stop_[1]})
            close(fd);
        unlink(path_.c_str());
        rmdir(folder_.c_str());
    }
    scripted_daemon(const scripted_daemon &) = delete;
    scripted_daemon &operator=(const scripted_daemon &) = delete;

    const std::string &path() const { return path_; }

    /// Answers `method` with the result `json`; nothing closes the connection. What was said last for a method holds;
    /// of several answers each is given once and the last from then on.
    void on(const std::string &method, std::vector<std::string> answers)
    {
        const std::scoped_lock lock(mutex_);
        answers_[method] = std::move(answers);
    }
    /// The same for one of its names or paths only, which goes before an answer for every name.
    void on(const std::string &method, const std::string &name, std::string answer)
    {
        on(method + " " + name, {std::move(answer)});
    }

    /// What was asked since the last call: "Method {params}".
    std::vector<std::string> asked()
    {
        const std::scoped_lock lock(mutex_);
        return std::exchange(asked_, {});
    }

private:
    void serve()
    {
        for (;;) {
            const int link = wait_for(listener_) ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
            if (link < 0)
                return;
            talk(link);
            close(link);
        }
    }

    /// False when the test is over.
    bool wait_for(int fd)
    {
        pollfd fds[] = {{stop_[0], POLLIN, 0}, {fd, POLLIN, 0}};
        return poll(fds, 2, -1) > 0 && fds[0].revents == 0;
    }

    void talk(int link)
    {
        wire_reader reader;
        while (wait_for(link)) {
            size_t room;
            char *place = reader.prepare(&room);
            const ssize_t count = read(link, place, room);
            if (count <= 0)
                return;
            reader.commit(static_cast<size_t>(count));
            std::string_view line;
            while (reader.next(&line) == wire_reader::state::line)
                if (!answer(link, json_ref(json_loadb(line.data(), line.size(), 0, nullptr))))
                    return;
        }
    }

    bool answer(int link, const json_ref &request)
    {
        const json_t *method = json_object_get(request.get(), "method");
        const json_t *params = json_object_get(request.get(), "params");
        const std::string text = script(json_string_value(method), params);
        if (text.empty())
            return false;
        json_t *member = json_loads(text.c_str(), JSON_ALLOW_NUL, nullptr);
        EXPECT_NE(member, nullptr) << text;
        const char *kind = json_object_get(member, "code") != nullptr ? "error" : "result";
        const json_ref reply{
            json_pack("{s:s, s:O, s:o}", "jsonrpc", "2.0", "id", json_object_get(request.get(), "id"), kind, member)};
        char *data = json_dumps(reply.get(), JSON_COMPACT);
        const std::string out = std::string(data) + "\n";
        free(data);
        return send(link, out.data(), out.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(out.size());
    }

    std::string script(const std::string &method, const json_t *params)
    {
        char *dumped = params != nullptr ? json_dumps(params, JSON_COMPACT) : strdup("");
        const std::scoped_lock lock(mutex_);
        asked_.push_back(method + (*dumped != '\0' ? " " : "") + dumped);
        free(dumped);
        const json_t *name = json_array_get(json_object_get(params, "ParameterNames"), 0);
        if (name == nullptr)
            name = json_object_get(params, "ParameterPath");
        auto found = json_is_string(name) ? answers_.find(method + " " + json_string_value(name)) : answers_.end();
        if (found == answers_.end())
            found = answers_.find(method);
        if (found == answers_.end())
            return "{}";
        std::vector<std::string> &answers = found->second;
        const std::string now = answers.front();
        if (answers.size() > 1)
            answers.erase(answers.begin());
        return now;
    }

    std::string folder_;
    std::string path_;
    int listener_ = -1;
    int stop_[2] = {-1, -1};
    std::mutex mutex_; // guards what follows
    std::map<std::string, std::vector<std::string>> answers_;
    std::vector<std::string> asked_;
    std::thread thread_;
};

/// Tests whose requests go to a scripted daemon.
class with_daemon : public testing::Test
{
protected:
    with_daemon()
    {
        static const bool once = (ve_wait_init(), true);
        EXPECT_TRUE(once);
        request_ctx = ve_jrpcapi_init();
        ve_jrpcapi_set_destination(request_ctx, nullptr, daemon.path().c_str(), ve_socket_unix);
        EXPECT_EQ(ve_jrpcapi_connect(request_ctx), 0) << ve_jrpcapi_connect_error(request_ctx);
    }
    ~with_daemon() override
    {
        ve_jrpcapi_deinit(request_ctx);
        request_ctx = nullptr;
    }

    /// What `act` printed.
    template <class Action> static std::string printed(Action act)
    {
        testing::internal::CaptureStdout();
        ve_out_reopened();
        act();
        ve_out_flush();
        return testing::internal::GetCapturedStdout();
    }

    using lines = std::vector<std::string>;
    scripted_daemon daemon;
};
