#include "platform/ve_jrpcmsg.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/ve_json.h"

namespace
{

std::string text_of(json_t *owned)
{
    const json_ref json(owned);
    char *dumped = json_dumps(json.get(), JSON_COMPACT | JSON_ENCODE_ANY);
    std::string text = dumped != nullptr ? dumped : "";
    free(dumped);
    return text;
}

std::string text_of(const msg_ref &message)
{
    return text_of(ve_jrpcmsg_json(message.get()));
}

msg_ref parse(const char *text)
{
    const json_ref json(json_loads(text, JSON_DECODE_ANY | JSON_ALLOW_NUL, nullptr));
    EXPECT_TRUE(json) << text;
    return msg_ref(ve_jrpcmsg_parse_json(json.get()));
}

} // namespace

TEST(JrpcMsg, BuildsTheRequestsOfTheProtocol)
{
    const auto built = [](ve_jrpcmsg *message) { return text_of(msg_ref(message)); };
    EXPECT_EQ(built(ve_jrpcmsg_create_new("Logout", nullptr)), R"({"jsonrpc":"2.0","method":"Logout"})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_join_group(4, "00ff", true)),
              R"({"jsonrpc":"2.0","method":"JoinGroup","params":{"Group":4,"Session":"00ff","Receiver":true}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_join_group(UINT32_MAX, "00ff", false)),
              R"({"jsonrpc":"2.0","method":"JoinGroup","params":{"Group":4294967295,"Session":"00ff"}})");
    EXPECT_EQ(
        built(ve_jrpcmsg_cmd_get_parameter_names("Device.", 1)),
        R"({"jsonrpc":"2.0","method":"GetParameterNames","params":{"ParameterPath":"Device.","NextLevel":true}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_get_parameter_values_new(json_pack("[s]", "Device.A"))),
              R"({"jsonrpc":"2.0","method":"GetParameterValues","params":{"ParameterNames":["Device.A"]}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_get_parameter_values_new(nullptr)),
              R"({"jsonrpc":"2.0","method":"GetParameterValues","params":{"ParameterNames":[]}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_get_parameter_attributes_new(json_pack("[s]", "Device.A"))),
              R"({"jsonrpc":"2.0","method":"GetParameterAttributes","params":{"ParameterNames":["Device.A"]}})");
    EXPECT_EQ(
        built(ve_jrpcmsg_cmd_set_parameter_values_new(json_pack("[{s:s,s:b}]", "Name", "Device.A", "Value", 1))),
        R"({"jsonrpc":"2.0","method":"SetParameterValues","params":{"ParameterList":[{"Name":"Device.A","Value":true}]}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_add_object("Device.T.", UINT32_MAX)),
              R"({"jsonrpc":"2.0","method":"AddObject","params":{"ObjectName":"Device.T."}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_add_object("Device.T.", 3)),
              R"({"jsonrpc":"2.0","method":"AddObject","params":{"ObjectName":"Device.T.","Order":3}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_delete_object("Device.T.1.")),
              R"({"jsonrpc":"2.0","method":"DeleteObject","params":{"ObjectName":"Device.T.1."}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_change_order("Device.T.1.", UINT32_MAX)),
              R"({"jsonrpc":"2.0","method":"ChangeOrder","params":{"ObjectName":"Device.T.1.","Order":4294967295}})");
    EXPECT_EQ(built(ve_jrpcmsg_cmd_execute("Device.Ping", nullptr)),
              R"({"jsonrpc":"2.0","method":"Execute","params":{"Path":"Device.Ping","ParameterList":[]}})");
    EXPECT_EQ(built(ve_jrpcmsg_create_event_new(12, json_integer(5))),
              R"({"jsonrpc":"2.0","method":"Event","params":{"Id":12,"Value":5}})");
    EXPECT_EQ(built(ve_jrpcmsg_create_event_new(12, nullptr)),
              R"({"jsonrpc":"2.0","method":"Event","params":{"Id":12}})");
}

TEST(JrpcMsg, AddsNamesToQueries)
{
    const msg_ref values(ve_jrpcmsg_cmd_get_parameter_values_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_values_add(values.get(), "A");
    ve_jrpcmsg_cmd_get_parameter_values_add(values.get(), "B");
    EXPECT_EQ(text_of(json_incref(ve_jrpcmsg_params(values.get()))), R"({"ParameterNames":["A","B"]})");
    const msg_ref attributes(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_attributes_add(attributes.get(), "C");
    EXPECT_EQ(text_of(json_incref(ve_jrpcmsg_params(attributes.get()))), R"({"ParameterNames":["C"]})");
}

TEST(JrpcMsg, MakesTheParametersOfARequestThatHasNone)
{
    const msg_ref built(ve_jrpcmsg_create_new("A", nullptr));
    json_object_set_new(ve_jrpcmsg_params(built.get()), "Depth", json_integer(1));
    EXPECT_EQ(text_of(built), R"({"jsonrpc":"2.0","method":"A","params":{"Depth":1}})");
    const msg_ref raw = parse(R"({"id":7,"method":"A"})");
    json_object_set_new(ve_jrpcmsg_params(raw.get()), "Depth", json_integer(1));
    EXPECT_EQ(text_of(raw), R"({"id":7,"method":"A","params":{"Depth":1}})");
}

TEST(JrpcMsg, TellsTheKindsApart)
{
    EXPECT_EQ(ve_jrpcmsg_typeof(parse(R"({"id":"x","method":"Event"})").get()), ve_jrpcmsg_request);
    EXPECT_EQ(ve_jrpcmsg_typeof(parse(R"({"method":"Event","params":{"Id":3}})").get()), ve_jrpcmsg_event);
    EXPECT_EQ(ve_jrpcmsg_typeof(parse(R"({"method":"Other"})").get()), ve_jrpcmsg_notification);
    EXPECT_EQ(ve_jrpcmsg_typeof(parse(R"({"id":3,"result":{}})").get()), ve_jrpcmsg_answer);
    for (const char *text : {"12", "[]", "{}", R"({"params":{}})", R"({"method":7})", R"({"id":null})",
                             R"({"id":true})", R"({"id":{},"method":"A"})"})
        EXPECT_FALSE(parse(text)) << text;
}

TEST(JrpcMsg, ReadsEventsOfAnyShape)
{
    const msg_ref event = parse(R"({"method":"Event","params":{"Id":12,"Value":[null,"a"]}})");
    EXPECT_EQ(ve_jrpcmsg_event_id(event.get()), 12U);
    EXPECT_EQ(text_of(json_incref(ve_jrpcmsg_event_value(event.get()))), R"([null,"a"])");
    EXPECT_EQ(ve_jrpcmsg_event_value(parse(R"({"method":"Event","params":{"Id":12}})").get()), nullptr);
    for (const char *params :
         {"5", "[]", "{}", R"({"Id":"12"})", R"({"Id":-1})", R"({"Id":4294967296})", R"({"Id":1.5})"}) {
        const std::string text = std::string(R"({"method":"Event","params":)") + params + "}";
        EXPECT_EQ(ve_jrpcmsg_event_id(parse(text.c_str()).get()), 0U) << text;
    }
}

TEST(JrpcMsg, CompletesARequestWithAnAnswer)
{
    const msg_ref request(ve_jrpcmsg_create_new("A", nullptr));
    const msg_ref answer = parse(R"({"jsonrpc":"2.0","id":7,"result":{"ParameterList":[1]}})");
    ve_jrpcmsg_complete(request.get(), answer.get());
    EXPECT_EQ(ve_jrpcmsg_error_code(request.get()), 0);
    EXPECT_STREQ(ve_jrpcmsg_error_title(request.get()), "");
    EXPECT_EQ(json_array_size(ve_jrpcmsg_parameter_list(request.get())), 1U);
    EXPECT_EQ(text_of(request), R"({"jsonrpc":"2.0","id":7,"result":{"ParameterList":[1]}})");
}

TEST(JrpcMsg, CompletesARequestWithAnErrorAnswer)
{
    const msg_ref request(ve_jrpcmsg_create_new("A", nullptr));
    ve_jrpcmsg_complete(
        request.get(),
        parse(R"({"id":7,"error":{"code":9005,"message":"no such thing","data":{"Device.X":"unknown"}}})").get());
    EXPECT_EQ(ve_jrpcmsg_error_code(request.get()), 9005);
    EXPECT_STREQ(ve_jrpcmsg_error_title(request.get()), "Invalid parameter name");
    EXPECT_STREQ(ve_jrpcmsg_error_message(request.get()), "no such thing");
    EXPECT_EQ(text_of(json_incref(ve_jrpcmsg_error_data(request.get()))), R"({"Device.X":"unknown"})");
    EXPECT_EQ(ve_jrpcmsg_result(request.get()), nullptr);
}

TEST(JrpcMsg, NeverTakesAMalformedAnswerForASuccess)
{
    for (const char *text :
         {R"({"id":1})", R"({"id":1,"result":null})", R"({"id":1,"result":[]})", R"({"id":1,"result":5})",
          R"({"id":1,"error":5})", R"({"id":1,"error":{}})", R"({"id":1,"error":{"code":0}})",
          R"({"id":1,"error":{"code":"9005"}})", R"({"id":1,"error":{"code":4294967296}})"}) {
        const msg_ref answer = parse(text);
        EXPECT_EQ(ve_jrpcmsg_error_code(answer.get()), -32603) << text;
        EXPECT_NE(ve_jrpcmsg_error_code(answer.get()) & 0xff, 0);
        EXPECT_EQ(ve_jrpcmsg_result(answer.get()), nullptr) << text;
    }
    const msg_ref odd = parse(R"({"id":1,"error":{"code":9001,"message":[],"data":"x"}})");
    EXPECT_EQ(ve_jrpcmsg_error_code(odd.get()), 9001);
    EXPECT_STREQ(ve_jrpcmsg_error_message(odd.get()), "");
    EXPECT_EQ(ve_jrpcmsg_error_data(odd.get()), nullptr);
}

TEST(JrpcMsg, ShowsAnAnswerThatNeverCameAsAnErrorAnswer)
{
    const msg_ref request = parse(R"({"id":"mine","method":"A"})");
    ve_jrpcmsg_set_error(request.get(), ve_jrpc_err_timeout, "no answer from the daemon in time", nullptr);
    EXPECT_STREQ(ve_jrpcmsg_error_title(request.get()), "Timed out");
    EXPECT_EQ(text_of(request),
              R"({"jsonrpc":"2.0","id":"mine","error":{"code":-32001,"message":"no answer from the daemon in time"}})");
    ve_jrpcmsg_set_error(request.get(), 9003, "bad", json_pack("{s:s}", "A", "b"));
    EXPECT_EQ(text_of(request),
              R"({"jsonrpc":"2.0","id":"mine","error":{"code":9003,"message":"bad","data":{"A":"b"}}})");
    ve_jrpcmsg_set_result_new(request.get(), json_pack("{s:i}", "Status", 0));
    EXPECT_EQ(ve_jrpcmsg_error_code(request.get()), 0);
    EXPECT_EQ(text_of(request), R"({"jsonrpc":"2.0","id":"mine","result":{"Status":0}})");
    ve_jrpcmsg_set_result_new(request.get(), nullptr);
    EXPECT_EQ(text_of(request), R"({"id":"mine","method":"A"})");
}

TEST(JrpcMsg, KnowsTheTitlesOfTheCodes)
{
    EXPECT_STREQ(ve_jrpc_error_title(9000), "Method not supported");
    EXPECT_STREQ(ve_jrpc_error_title(9008), "Attempt to set a non-writable parameter");
    EXPECT_STREQ(ve_jrpc_error_title(9018), "File corrupted or unusable");
    EXPECT_STREQ(ve_jrpc_error_title(-32700), "Parse error");
    EXPECT_STREQ(ve_jrpc_error_title(-32603), "Internal error");
    EXPECT_STREQ(ve_jrpc_error_title(ve_jrpc_err_lost), "Connection lost");
    EXPECT_STREQ(ve_jrpc_error_title(9009), "Error");
    EXPECT_STREQ(ve_jrpc_error_title(1), "Error");
}
