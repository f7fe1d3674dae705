// Filling the cache from a daemon, and what is listed from it.
#include <cstdlib>

#include "cdpath/cdpath.h"
#include "scripted_daemon.h"

namespace
{

constexpr char root_answer[] = R"({"ParameterList": [{"Name": "Device.", "Attributes": {"type": "object"}}]})";
constexpr char device_answer[] = R"({"ParameterList": [
    {"Name": "Device.", "Attributes": {"type": "object"}},
    {"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true, "ordered": true}},
    {"Name": "Device.Version", "Attributes": {"type": "string", "default": ""}},
    {"Name": "Device.Reset", "Attributes": {"type": "method"}}]})";
constexpr char host_answer[] = R"({"ParameterList": [
    {"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true, "ordered": true},
     "Template": [{"Name": "", "Attributes": {"type": "object"}}, {"Name": "Name", "Attributes": {"type": "string"}}]},
    {"Name": "Device.Host.2.", "Attributes": {"type": "object"}},
    {"Name": "Device.Host.max_instance", "Attributes": {"type": "unsignedInt"}}]})";
constexpr char host_names[] = R"({"ParameterList": [{"Name": "Device.Host.2."}, {"Name": "Device.Host.1."},
    {"Name": "Device.Host.max_instance"}, {"Name": "Device.Host.order"}]})";
constexpr char instances_answer[] = R"({"ParameterList": [
    {"Name": "Device.Host.2.", "Attributes": {"type": "object"}},
    {"Name": "Device.Host.2.Name", "Attributes": {"type": "string"}},
    {"Name": "Device.Host.1.", "Attributes": {"type": "object"}},
    {"Name": "Device.Host.max_instance", "Attributes": {"type": "unsignedInt"}}]})";

class Fetch : public with_daemon
{
protected:
    Fetch()
    {
        daemon.on("GetParameterAttributes", ".", root_answer);
        daemon.on("GetParameterAttributes", "Device.", device_answer);
        daemon.on("GetParameterAttributes", "Device.Host.", host_answer);
        daemon.on("GetParameterAttributes", "Device.Host.2.", instances_answer);
        daemon.on("GetParameterNames", "Device.Host.", host_names);
        dm = json_object();
        cdpath_new(&cwd);
        cdpath_new(&old_cwd);
        cdpath_fetch(&cwd);
        request_set_hooks({[] {},
                           [] {
                               json_decref(dm);
                               dm = json_object();
                               cdpath_clear(&cwd);
                               cdpath_fetch(&cwd);
                               return dm;
                           }});
    }
    ~Fetch() override
    {
        request_set_hooks({});
        cdpath_free(&cwd);
        cdpath_free(&old_cwd);
        json_decref(dm);
        dm = nullptr;
    }

    static std::string joined(json_t *list)
    {
        const json_ref owned(list);
        if (list == nullptr)
            return "nothing";
        char *text = json_dumps(list, JSON_COMPACT);
        const std::string result = text;
        free(text);
        return result;
    }
};

} // namespace

TEST_F(Fetch, TheRootIsAskedForAsADot)
{
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["."],"Depth":1})"});
    EXPECT_TRUE(json_is_true(json_object_get(dm, "#fetched")));
    EXPECT_NE(json_object_get(json_object_get(dm, "Device"), "#attr"), nullptr);
}

TEST_F(Fetch, APathFetchesWhatItNeedsOnce)
{
    daemon.asked();
    for (int i = 0; i < 2; ++i) {
        cdpath_local place(cwd);
        EXPECT_EQ(cdpath_parse(&place, "Device.Version"), 0);
    }
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device."],"Depth":1})"});
}

TEST_F(Fetch, ATableTakesThreeRequests)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    daemon.asked();
    EXPECT_EQ(cdpath_fetch(&place), 0);
    const lines expected = {
        R"(GetParameterAttributes {"ParameterNames":["Device.Host."],"Depth":1})",
        R"(GetParameterNames {"ParameterPath":"Device.Host.","NextLevel":true})",
        R"(GetParameterAttributes {"ParameterNames":["Device.Host.2.","Device.Host.1.","Device.Host.max_instance","Device.Host.order"]})"};
    EXPECT_EQ(daemon.asked(), expected);
    for (const char *name : {"1", "2", "max_instance"})
        EXPECT_TRUE(json_is_true(json_object_get(json_object_get(place.node, name), "#fetched"))) << name;
    EXPECT_NE(json_object_get(json_object_get(place.node, "2"), "Name"), nullptr);
    EXPECT_NE(json_object_get(json_object_get(place.node, "#template"), "Name"), nullptr);
    EXPECT_EQ(json_object_get(place.node, "#info"), nullptr);
}

TEST_F(Fetch, WhatInstancesHoldAlikeIsFilledForEachOfThemAlone)
{
    daemon.on("GetParameterAttributes", "Device.Host.", R"({"ParameterList": [
        {"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true},
         "Template": [{"Name": "", "Attributes": {"type": "object"}},
                      {"Name": "Send", "Attributes": {"type": "method"}}]}]})");
    daemon.on("GetParameterAttributes", "Device.Host.2.", R"({"ParameterList": [
        {"Name": "Device.Host.2.", "Attributes": {"type": "object"}},
        {"Name": "Device.Host.2.Send", "Attributes": {"type": "method"}},
        {"Name": "Device.Host.1.", "Attributes": {"type": "object"}},
        {"Name": "Device.Host.1.Send", "Attributes": {"type": "method"}}]})");
    daemon.on("GetParameterAttributes", "Device.Host.1.Send.", R"({"ParameterList": [
        {"Name": "Device.Host.1.Send", "Attributes": {"type": "method"}},
        {"Name": "Device.Host.1.Send.To", "Attributes": {"type": "string", "Direction": "input"}}]})");
    daemon.on("GetParameterAttributes", "Device.Host.2.Send.", R"({"code": 9001, "message": "not on this one"})");
    {
        cdpath_local place(cwd);
        EXPECT_EQ(cdpath_parse(&place, "Device.Host.1.Send.To"), 0);
    }
    daemon.asked();
    {
        cdpath_local place(cwd);
        EXPECT_EQ(cdpath_parse(&place, "Device.Host.2.Send.To"), -1);
        EXPECT_EQ(cdpath_parse(&place, ":Device.Host.1.Send.To"), 0);
    }
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device.Host.2.Send."],"Depth":1})"});
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host.7.Send"), 0);
    EXPECT_EQ(joined(json_incref(place.node)), R"({"#attr":{"type":"method"}})");
}

TEST_F(Fetch, ANodeKeepsItsIdentity)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device"), 0);
    json_t *node = place.node;
    cdpath_fetch(&place);
    EXPECT_EQ(place.node, node);
    EXPECT_EQ(json_object_get(dm, "Device"), node);
    EXPECT_NE(json_object_get(node, "Host"), nullptr);
}

TEST_F(Fetch, ARefusedOrUselessAnswerEmptiesTheNode)
{
    for (const char *answer : {R"({"code": 9001, "message": "no"})", "{}", R"({"ParameterList": 7})",
                               R"({"ParameterList": [7, {"Name": 7}, {"Name": "Else."}]})"}) {
        daemon.on("GetParameterAttributes", "Device.", answer);
        cdpath_local place(cwd);
        ASSERT_EQ(cdpath_parse(&place, "Device"), 0);
        cdpath_fetch(&place);
        EXPECT_EQ(joined(json_incref(place.node)), R"({"#fetched":true})") << answer;
    }
}

TEST_F(Fetch, AReconnectOnTheWayLeadsIntoTheNewCache)
{
    daemon.on("GetParameterAttributes Device.", {"", device_answer});
    json_t *old_root = json_incref(dm);
    cdpath_local place(cwd);
    printed([&] { EXPECT_EQ(cdpath_parse(&place, "Device.Version"), 0); });
    EXPECT_NE(dm, old_root);
    EXPECT_EQ(json_object_get(json_object_get(dm, "Device"), "Version"), place.node);
    EXPECT_EQ(cdpath_parse(&place, "<<"), 0);
    EXPECT_EQ(place.node, dm);
    json_decref(old_root);
}

TEST_F(Fetch, AReconnectFarFromTheRootTouchesNothingThatIsGone)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    cdpath_free(&cwd);
    cdpath_copy(&cwd, &place);
    daemon.on("GetParameterAttributes Device.Host.", {"", host_answer});
    printed([&] { EXPECT_EQ(cdpath_parse(&place, "1"), 0); });
    EXPECT_STREQ(place.path, "Device.Host.1");
    EXPECT_STREQ(cwd.path, "");
    EXPECT_EQ(cdpath_parse(&place, "<<<"), 0);
    EXPECT_TRUE(cdpath_is_root(&place));
}

TEST_F(Fetch, TheShellsOwnPlaceMovedByAReconnectIsNotFilledWithAnotherNode)
{
    ASSERT_EQ(cdpath_parse(&cwd, "Device.Host"), 0);
    daemon.on("GetParameterAttributes Device.Host.", {"", host_answer});
    printed([&] { cdpath_fetch(&cwd); });
    EXPECT_STREQ(cwd.path, "");
    EXPECT_EQ(json_object_get(dm, "max_instance"), nullptr);
    EXPECT_NE(json_object_get(dm, "Device"), nullptr);
}

TEST_F(Fetch, ContentComesFromTheCache)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device"), 0);
    EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, 0)), R"(["Host","Version","Reset"])");
    daemon.asked();
    EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, CDPATH_OBJECT_DOT)), R"(["Host.","Version","Reset"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, "D", CDPATH_OBJECT_DOT)), R"(["D.Host.","D.Version","D.Reset"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, "", 0)), R"([".Host",".Version",".Reset"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, "V", CDPATH_FILTER_PREFIX)), R"(["Version"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, CDPATH_OBJECTS_ONLY | CDPATH_ABSOLUTE)), R"([":Host"])");
    EXPECT_EQ(joined(cdpath_content(&place, nullptr, 0)), R"(["Host","Version","Reset"])");
    EXPECT_EQ(daemon.asked(), lines{});
}

TEST_F(Fetch, ATablesContentIsAskedForAnew)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    daemon.asked();
    EXPECT_EQ(joined(cdpath_content(&place, nullptr, CDPATH_OBJECT_DOT)), R"(["2.","1.","max_instance","order"])");
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterNames {"ParameterPath":"Device.Host.","NextLevel":true})"});
    EXPECT_EQ(joined(cdpath_content(&place, nullptr, CDPATH_OBJECTS_ONLY)), R"(["2","1"])");
    EXPECT_EQ(joined(cdpath_content(&place, "1", CDPATH_FILTER_PREFIX)), R"(["1"])");
    EXPECT_EQ(joined(cdpath_content(&place, "x", 0)), R"(["x.2","x.1","x.max_instance","x.order"])");
    EXPECT_EQ(joined(cdpath_content(&place, "[", CDPATH_FILTER_PREFIX)), "[]");
}

TEST_F(Fetch, AWordThatIsNoInstanceAsksNothing)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    daemon.asked();
    EXPECT_EQ(joined(cdpath_content(&place, "ma", CDPATH_FILTER_PREFIX)), R"(["max_instance"])");
    EXPECT_EQ(joined(cdpath_content(&place, "o", CDPATH_FILTER_PREFIX | CDPATH_ABSOLUTE)), R"([":order"])");
    EXPECT_EQ(joined(cdpath_content(&place, "x", CDPATH_FILTER_PREFIX)), "nothing");
    EXPECT_EQ(daemon.asked(), lines{});
}

TEST_F(Fetch, AListOfValuesHasNoObjects)
{
    daemon.on("GetParameterAttributes", "Device.Host.",
              R"({"ParameterList": [{"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true},
                  "Template": [{"Name": "", "Attributes": {"type": "string"}}]}]})");
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    cdpath_fetch(&place);
    EXPECT_EQ(joined(cdpath_content(&place, nullptr, CDPATH_OBJECTS_ONLY)), "nothing");
    EXPECT_EQ(joined(cdpath_content(&place, nullptr, CDPATH_OBJECT_DOT)), R"(["2","1","max_instance","order"])");
}

TEST_F(Fetch, WithoutAnAnswerATableHasNoContent)
{
    daemon.on("GetParameterNames", "Device.Host.", R"({"code": 9002, "message": "broken"})");
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Host"), 0);
    EXPECT_EQ(joined(cdpath_content(&place, nullptr, 0)), "nothing");
}

TEST_F(Fetch, AMethodsInputIsATreeOfItsInputArguments)
{
    cdpath_local place(cwd);
    ASSERT_EQ(cdpath_parse(&place, "Device.Reset"), 0);
    daemon.on("GetParameterAttributes", "Device.Reset.", R"({"ParameterList": [
        {"Name": "Device.Reset", "Attributes": {"type": "method"}},
        {"Name": "Device.Reset.Delay", "Attributes": {"type": "int", "default": 0, "Direction": "input"}},
        {"Name": "Device.Reset.Opt.Mode", "Attributes": {"type": "string", "default": "", "Direction": "input"}},
        {"Name": "Device.Reset.Done", "Attributes": {"type": "int", "default": 0, "Direction": "output"}},
        {"Name": "Device.Reset.Odd", "Attributes": {"type": "int", "Direction": 5}}]})");
    daemon.asked();
    EXPECT_EQ(joined(cdpath_get_input(&place)),
              R"({"Delay":{"#attr":{"type":"int","default":0,"Direction":"input"}},)"
              R"("Opt":{"Mode":{"#attr":{"type":"string","default":"","Direction":"input"}}}})");
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device.Reset."]})"});
    EXPECT_EQ(cdpath_parse(&place, "<"), 0);
    EXPECT_EQ(joined(cdpath_get_input(&place)), "nothing");
    EXPECT_EQ(daemon.asked(), lines{});
}
