#include "commands/file_server.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "leaping_clock.h"
#include "platform/ve_jrpcapi.h"
#include "platform/ve_out.h"
#include "vebase_scripted_peer.h"

TEST(FileServer, GivesUpOnADaemonThatDoesNotCome)
{
    const scripted_peer peer([](peer_link &link) { link.closed(); }, AF_INET);
    const std::unique_ptr<ve_jrpcapi, void (*)(ve_jrpcapi *)> ctx(ve_jrpcapi_init(), ve_jrpcapi_deinit);
    ve_jrpcapi_set_destination(ctx.get(), peer.destination(), nullptr, ve_socket_unix);
    ASSERT_EQ(ve_jrpcapi_connect(ctx.get()), 0);
    char path[] = "/tmp/kest-file-XXXXXX";
    close(mkstemp(path));
    testing::internal::CaptureStdout();
    ve_out_reopened();
    std::string url;
    {
        const leaping_clock clock(11);
        EXPECT_TRUE(file_server_start(path, ve_jrpcapi_socket(ctx.get()), &url));
        file_server_wait_all();
    }
    ve_out_flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Waiting timeout, abort.\nSending file (" + std::string(path) +
                                                          ", 0 bytes) via netcat (" + url + ")...\n");
    unlink(path);
}
