// Filling the cache from a daemon, and what is listed from it.
#include <cstdlib>

#include "cdpath/cdpath.h"
#include "cdpath_nodes.h"
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
        reload();
        request_set_hooks({[] {}, reload});
    }
    ~Fetch() override
    {
        request_set_hooks({});
        cwd = old_cwd = dm_path();
        dm = nullptr;
    }

    static void reload()
    {
        dm = std::make_shared<dm_node>();
        cwd = dm_path();
        cdpath root = cdpath_here();
        cdpath_fetch(&root);
    }

    /// The place that a path typed at the root leads to; without a node when it leads nowhere.
    static cdpath at(const char *text)
    {
        cdpath place{{}, dm};
        return cdpath_parse(&place, text) == 0 ? place : cdpath();
    }
    static std::string content(const cdpath &place, const char *text, unsigned flags)
    {
        return joined(cdpath_content(place.path, place.node.get(), text, flags));
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
    EXPECT_EQ(shown(*dm), "!(Device:object)");
}

TEST_F(Fetch, APathFetchesWhatItNeedsOnce)
{
    daemon.asked();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(at("Device.Version").path.text(), "Device.Version");
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device."],"Depth":1})"});
}

TEST_F(Fetch, ATableTakesThreeRequests)
{
    cdpath place = at("Device.Host");
    daemon.asked();
    EXPECT_EQ(cdpath_fetch(&place), 0);
    const lines expected = {
        R"(GetParameterAttributes {"ParameterNames":["Device.Host."],"Depth":1})",
        R"(GetParameterNames {"ParameterPath":"Device.Host.","NextLevel":true})",
        R"(GetParameterAttributes {"ParameterNames":["Device.Host.2.","Device.Host.1.","Device.Host.max_instance","Device.Host.order"]})"};
    EXPECT_EQ(daemon.asked(), expected);
    EXPECT_EQ(shown(*place.node),
              "object*!<object(Name:string)>(2:object!(Name:string) max_instance:unsignedInt! 1:object!)");
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
    EXPECT_NE(at("Device.Host.1.Send.To").node, nullptr);
    daemon.asked();
    EXPECT_EQ(at("Device.Host.2.Send.To").node, nullptr);
    EXPECT_NE(at("Device.Host.1.Send.To").node, nullptr);
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device.Host.2.Send."],"Depth":1})"});
    EXPECT_EQ(shown(*at("Device.Host.7.Send").node), "method");
}

TEST_F(Fetch, AnInstanceThatDoesNotExistChangesNoOther)
{
    daemon.on("GetParameterAttributes", "Device.Host.", R"({"ParameterList": [
        {"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true},
         "Template": [{"Name": "", "Attributes": {"type": "object"}},
                      {"Name": "Sub.", "Attributes": {"type": "object", "multi": true}}]}]})");
    for (const char *path : {"Device.Host.9.", "Device.Host.9.Sub.", "Device.Host.9.Sub.1.", "Device.Host.8.Sub."})
        daemon.on("GetParameterAttributes", path, R"({"code": 9005, "message": "no such name"})");
    daemon.on("GetParameterAttributes", "Device.Host.7.Sub.", R"({"ParameterList": [
        {"Name": "Device.Host.7.Sub.", "Attributes": {"type": "object", "multi": true},
         "Template": [{"Name": "", "Attributes": {"type": "object"}}, {"Name": "Deep", "Attributes": {"type": "int"}}]}]})");
    EXPECT_EQ(at("Device.Host.9.Sub.1.Deep").node, nullptr);
    EXPECT_NE(at("Device.Host.7.Sub.1.Deep").node, nullptr);
    EXPECT_EQ(at("Device.Host.8.Sub.1.Deep").node, nullptr);
    cdpath gone = at("Device.Host.9");
    EXPECT_EQ(joined(cdpath_content_fast(&gone, nullptr, 0)), "[]");
    EXPECT_EQ(shown(*gone.node), "objectx");
    EXPECT_EQ(shown(*at("Device.Host.6").node), "object~(Sub:object*)");
    daemon.asked();
    EXPECT_EQ(at("Device.Host.9.Sub").node, nullptr);
    EXPECT_NE(at("Device.Host.7.Sub.1.Deep").node, nullptr);
    EXPECT_EQ(daemon.asked(), lines{});
}

TEST_F(Fetch, ANodeKeepsItsIdentity)
{
    cdpath place = at("Device");
    const std::shared_ptr<dm_node> node = place.node;
    cdpath_fetch(&place);
    EXPECT_EQ(place.node, node);
    EXPECT_EQ(dm->find("Device"), node);
    EXPECT_NE(node->child("Host"), nullptr);
}

TEST_F(Fetch, AUselessAnswerEmptiesTheNode)
{
    for (const char *answer :
         {"{}", R"({"ParameterList": 7})", R"({"ParameterList": [7, {"Name": 7}, {"Name": "Else."}]})"}) {
        reload();
        daemon.on("GetParameterAttributes", "Device.", answer);
        cdpath place = at("Device");
        cdpath_fetch(&place);
        EXPECT_EQ(shown(*place.node), "object!") << answer;
    }
}

TEST_F(Fetch, ARefusalIsRememberedWithWhatTheNodeIs)
{
    for (const int code : {9001, 9005}) {
        reload();
        daemon.on("GetParameterAttributes", "Device.", R"({"code": )" + std::to_string(code) + R"(, "message": "no"})");
        cdpath place = at("Device");
        daemon.asked();
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, 0)), "[]");
        EXPECT_EQ(daemon.asked().size(), 1U);
        EXPECT_EQ(shown(*place.node), "objectx");
    }
}

TEST_F(Fetch, AnyOtherFaultIsAskedForAgain)
{
    daemon.on("GetParameterAttributes Device.", {R"({"code": 9002, "message": "broken"})", device_answer});
    EXPECT_EQ(at("Device.Host").node, nullptr);
    daemon.asked();
    EXPECT_NE(at("Device.Host").node, nullptr);
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device."],"Depth":1})"});
    const std::pair<const char *, const char *> later[] = {{"GetParameterNames Device.Host.", host_names},
                                                           {"GetParameterAttributes Device.Host.2.", instances_answer}};
    for (const auto &[request, answer] : later) {
        reload();
        daemon.on(request, {R"({"code": 9002, "message": "broken"})", answer});
        EXPECT_EQ(at("Device.Host.1").node, nullptr) << request;
        EXPECT_NE(at("Device.Host.1").node, nullptr) << request;
    }
}

TEST_F(Fetch, AReconnectOnTheWayLeadsIntoTheNewCache)
{
    daemon.on("GetParameterAttributes Device.", {"", device_answer});
    const std::shared_ptr<dm_node> old_root = dm;
    cdpath place{{}, dm};
    printed([&] { EXPECT_EQ(cdpath_parse(&place, "Device.Version"), 0); });
    EXPECT_NE(dm, old_root);
    EXPECT_EQ(dm->find("Device.Version"), place.node);
    EXPECT_EQ(cdpath_parse(&place, "<<"), 0);
    EXPECT_EQ(place.node, dm);
}

TEST_F(Fetch, AReconnectFarFromTheRootTouchesNothingThatIsGone)
{
    cdpath place = at("Device.Host");
    cwd = place.path;
    daemon.on("GetParameterAttributes Device.Host.", {"", host_answer});
    printed([&] { EXPECT_EQ(cdpath_parse(&place, "1"), 0); });
    EXPECT_EQ(place.path.text(), "Device.Host.1");
    EXPECT_EQ(cwd.text(), "");
    EXPECT_EQ(cdpath_parse(&place, "<<<"), 0);
    EXPECT_TRUE(place.path.is_root());
    EXPECT_EQ(shown(*dm), "!(Device:object)");
}

TEST_F(Fetch, TheShellsPlaceIsFoundAnewInANewCache)
{
    cwd = at("Device.Host.1").path;
    reload();
    cwd = dm_path("Device.Host.1");
    cdpath here = cdpath_here();
    EXPECT_EQ(here.node, nullptr);
    EXPECT_EQ(cdpath_parse(&here, "<"), 0);
    EXPECT_EQ(here.path.text(), "Device.Host");
    EXPECT_TRUE(cdpath_settle(&here));
    EXPECT_EQ(here.node, dm->find("Device.Host"));
    cwd = dm_path("Device.Gone.Sub");
    here = cdpath_here();
    EXPECT_FALSE(cdpath_settle(&here));
    EXPECT_EQ(here.path.text(), "Device.Gone.Sub");
    EXPECT_EQ(cdpath_parse(&here, "X"), -1);
    EXPECT_EQ(cdpath_parse(&here, ":Device"), 0);
}

TEST_F(Fetch, TheRootNeverListsTheVersionOfTheModel)
{
    daemon.on("GetParameterAttributes", ".", R"({"ParameterList": [{"Name": "DataModelVersion",
        "Attributes": {"type": "string"}}, {"Name": "Device.", "Attributes": {"type": "object"}}]})");
    dm = std::make_shared<dm_node>();
    EXPECT_EQ(at("DataModelVersion").node, nullptr);
    EXPECT_EQ(shown(*dm), "!(Device:object)");
}

TEST_F(Fetch, ContentComesFromTheCache)
{
    cdpath place = at("Device");
    EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, 0)), R"(["Host","Reset","Version"])");
    daemon.asked();
    EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, CDPATH_OBJECT_DOT)), R"(["Host.","Reset","Version"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, "D", CDPATH_OBJECT_DOT)), R"(["D.Host.","D.Reset","D.Version"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, "", 0)), R"([".Host",".Reset",".Version"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, "V", CDPATH_FILTER_PREFIX)), R"(["Version"])");
    EXPECT_EQ(joined(cdpath_content_fast(&place, nullptr, CDPATH_OBJECTS_ONLY | CDPATH_ABSOLUTE)), R"([":Host"])");
    EXPECT_EQ(content(place, nullptr, 0), R"(["Host","Version","Reset"])");
    EXPECT_EQ(daemon.asked(), lines{});
}

TEST_F(Fetch, ATablesContentIsAskedForAnew)
{
    cdpath place = at("Device.Host");
    daemon.asked();
    EXPECT_EQ(content(place, nullptr, CDPATH_OBJECT_DOT), R"(["2.","1.","max_instance","order"])");
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterNames {"ParameterPath":"Device.Host.","NextLevel":true})"});
    EXPECT_EQ(content(place, nullptr, CDPATH_OBJECTS_ONLY), R"(["2","1"])");
    EXPECT_EQ(content(place, "1", CDPATH_FILTER_PREFIX), R"(["1"])");
    EXPECT_EQ(content(place, "x", 0), R"(["x.2","x.1","x.max_instance","x.order"])");
    EXPECT_EQ(content(place, "[", CDPATH_FILTER_PREFIX), "[]");
}

TEST_F(Fetch, AWordThatIsNoInstanceAsksNothing)
{
    cdpath place = at("Device.Host");
    daemon.asked();
    EXPECT_EQ(content(place, "ma", CDPATH_FILTER_PREFIX), R"(["max_instance"])");
    EXPECT_EQ(content(place, "o", CDPATH_FILTER_PREFIX | CDPATH_ABSOLUTE), R"([":order"])");
    EXPECT_EQ(content(place, "x", CDPATH_FILTER_PREFIX), "nothing");
    EXPECT_EQ(daemon.asked(), lines{});
}

TEST_F(Fetch, AListOfValuesHasNoObjects)
{
    daemon.on("GetParameterAttributes", "Device.Host.",
              R"({"ParameterList": [{"Name": "Device.Host.", "Attributes": {"type": "object", "multi": true},
                  "Template": [{"Name": "", "Attributes": {"type": "string"}}]}]})");
    cdpath place = at("Device.Host");
    cdpath_fetch(&place);
    EXPECT_EQ(content(place, nullptr, CDPATH_OBJECTS_ONLY), "nothing");
    EXPECT_EQ(content(place, nullptr, CDPATH_OBJECT_DOT), R"(["2","1","max_instance","order"])");
}

TEST_F(Fetch, WithoutAnAnswerATableHasNoContent)
{
    daemon.on("GetParameterNames", "Device.Host.", R"({"code": 9002, "message": "broken"})");
    cdpath place = at("Device.Host");
    EXPECT_EQ(content(place, nullptr, 0), "nothing");
}

TEST_F(Fetch, AMethodsInputIsATreeOfItsInputArguments)
{
    cdpath place = at("Device.Reset");
    daemon.on("GetParameterAttributes", "Device.Reset.", R"({"ParameterList": [
        {"Name": "Device.Reset", "Attributes": {"type": "method"}},
        {"Name": "Device.Reset.Delay", "Attributes": {"type": "int", "default": 0, "Direction": "input"}},
        {"Name": "Device.Reset.Opt.Mode", "Attributes": {"type": "string", "default": "", "Direction": "input"}},
        {"Name": "Device.Reset.Done", "Attributes": {"type": "int", "default": 0, "Direction": "output"}},
        {"Name": "Device.Reset.Odd", "Attributes": {"type": "int", "Direction": 5}}]})");
    daemon.asked();
    EXPECT_EQ(shown(*cdpath_get_input(place)), "(Delay:int Opt:(Mode:string))");
    EXPECT_EQ(daemon.asked(), lines{R"(GetParameterAttributes {"ParameterNames":["Device.Reset."]})"});
    EXPECT_EQ(cdpath_parse(&place, "<"), 0);
    EXPECT_EQ(cdpath_get_input(place), nullptr);
    EXPECT_EQ(daemon.asked(), lines{});
}
