// Data-model XML in, model document out.
#include "veld/import/import.h"

#include "veld/import/types.h"
#include "veld/model/pattern.h"
#include "veld/model/scheme.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace veld;

namespace
{

// A directory of its own that goes with everything in it.
class directory
{
public:
    directory()
    {
        char name[] = "/tmp/import.XXXXXX";
        path = mkdtemp(name);
    }
    ~directory() { std::filesystem::remove_all(path); }
    directory(const directory &) = delete;
    directory &operator=(const directory &) = delete;
    std::string file(const std::string &name, const std::string &content) const
    {
        std::ofstream(path + "/" + name, std::ios::binary) << content;
        return path + "/" + name;
    }
    std::string path;
};

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string document(const std::string &types, const std::string &objects)
{
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<dm:document xmlns:dm="urn:broadband-forum-org:cwmp:datamodel-1-15" spec="urn:example">
  <description>Text &amp; more</description>)" +
           types +
           R"(<model name="Device:2.19"><object name="Device." access="readOnly" minEntries="1" maxEntries="1"/>)" +
           objects + "</model></dm:document>\n";
}

// A model with one object, Device.X., that holds `content`.
std::string with_object(const std::string &content, const std::string &types = "")
{
    return document(types, R"(<object name="Device.X.">)" + content + "</object>");
}

std::string with_syntax(const std::string &syntax, const std::string &types = "")
{
    return with_object(R"(<parameter name="P"><syntax>)" + syntax + "</syntax></parameter>", types);
}

struct imported {
    json_ref model;
    import_counts counts;
    import_warnings said;
    std::string warnings; // the same, one a line
    std::string error;

    // The text of the node at a path like "Device/X/P": children, templates, inputs and outputs.
    // `remarks`: with what is there for people.
    std::string node(const std::string &path, bool remarks = true) const
    {
        const json_t *at = json_object_get(model.get(), "root");
        std::stringstream words(path);
        bool first = true;
        for (std::string word; std::getline(words, word, '/'); first = false) {
            if (word == "{i}") {
                at = json_object_get(at, "template");
                continue;
            }
            if (word == "input" || word == "output") {
                at = json_object_get(at, word.c_str());
                first = true;
                std::getline(words, word, '/');
            }
            at = json_object_get(first ? at : json_object_get(at, "children"), word.c_str());
        }
        if (at == nullptr)
            return "(none)";
        json_ref copy(json_copy(const_cast<json_t *>(at)));
        json_object_del(copy.get(), "children");
        json_object_del(copy.get(), "template");
        for (const char *key : {"description", "version"})
            if (!remarks)
                json_object_del(copy.get(), key);
        char *text = json_dumps(copy.get(), JSON_COMPACT);
        std::string out = text;
        free(text);
        return out;
    }
};

imported import_text(const std::string &xml, const std::string &name = "")
{
    directory temporary;
    imported result;
    result.model =
        import_model(temporary.file("in.xml", xml).c_str(), name, &result.counts, &result.said, &result.error);
    for (const std::string &line : result.said.lines())
        result.warnings += line + "\n";
    return result;
}

// The parameter Device.X.P as it comes out.
std::string parameter(const std::string &syntax, const std::string &types = "")
{
    imported result = import_text(with_syntax(syntax, types));
    return result.model ? result.node("Device/X/P") : result.error;
}

std::string error_of(const std::string &xml)
{
    imported result = import_text(xml);
    EXPECT_FALSE(result.model) << xml;
    return result.error;
}

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(Import, ObjectsTablesAndParametersStandWhereTheirPathsSay)
{
    imported result = import_text(document("", R"(
      <object name="Device.Hosts." access="readOnly" minEntries="1" maxEntries="1">
        <parameter name="HostNumberOfEntries" access="readOnly"><syntax><unsignedInt/></syntax></parameter>
      </object>
      <object name="Device.Hosts.Host.{i}." access="readWrite" minEntries="0" maxEntries="unbounded" numEntriesParameter="HostNumberOfEntries">
        <uniqueKey functional="false"><parameter ref="Alias"/></uniqueKey>
        <uniqueKey functional="true"><parameter ref="A"/><parameter ref="B"/></uniqueKey>
        <uniqueKey functional="true"><parameter ref="Number"/></uniqueKey>
        <parameter name="Alias" access="readWrite"><syntax><string><size maxLength="64"/></string></syntax></parameter>
        <parameter name="A" access="writeOnceReadOnly"><syntax><string/></syntax></parameter>
        <parameter name="B"><syntax><boolean/></syntax></parameter>
        <parameter name="Number"><syntax><unsignedInt/></syntax></parameter>
      </object>
      <object name="Device.Hosts.Host.{i}.Stats."/>
      <object name="Device.Hosts.Host.{i}.Address.{i}." minEntries="2" maxEntries="4"/>)"));
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.warnings, "");
    EXPECT_EQ(result.node("Device/Hosts"), R"({"type":"object"})");
    EXPECT_EQ(result.node("Device/Hosts/HostNumberOfEntries"),
              R"({"type":"unsignedInt","default":0,"entries":"Host"})");
    EXPECT_EQ(
        result.node("Device/Hosts/Host"),
        R"({"type":"object","access":"readWrite","multi":true,"keys":[{"parameters":["A","B"]},{"parameters":["Number"]}]})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}"), R"({"type":"object","access":"readWrite"})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}/Alias"),
              R"({"type":"string","default":"","maxLength":64,"access":"readWrite","unique":true})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}/A"), R"({"type":"string","default":"","access":"readWrite"})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}/B"), R"({"type":"boolean","default":false})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}/Number"), R"({"type":"unsignedInt","default":0})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}/Stats"), R"({"type":"object"})");
    EXPECT_EQ(result.node("Device/Hosts/Host/{i}/Address"),
              R"({"type":"object","multi":true,"minCount":2,"maxCount":4})");
    EXPECT_EQ(result.node("DataModelVersion"), R"({"type":"string","default":"2.19"})");
    EXPECT_EQ(result.counts.objects, 5U);
    EXPECT_EQ(result.counts.tables, 2U);
    EXPECT_EQ(result.counts.parameters, 5U);
}

TEST(Import, EveryTypeHasItsName)
{
    for (const char *type : {"string", "base64", "hexBinary"})
        EXPECT_EQ(parameter("<" + std::string(type) + "/>"), R"({"type":")" + std::string(type) + R"(","default":""})");
    for (const char *type : {"int", "unsignedInt", "long", "unsignedLong"})
        EXPECT_EQ(parameter("<" + std::string(type) + "/>"), R"({"type":")" + std::string(type) + R"(","default":0})");
    EXPECT_EQ(parameter("<boolean/>"), R"({"type":"boolean","default":false})");
    EXPECT_EQ(parameter("<decimal/>"), R"({"type":"decimal","default":0.0})");
    EXPECT_EQ(parameter("<dateTime/>"), R"({"type":"dateTime","default":"0001-01-01T00:00:00Z"})");
    EXPECT_EQ(parameter(R"(<string><size maxLength="256"/><pathRef refType="strong" targetParent=".X."/></string>)"),
              R"({"type":"path","default":"","maxLength":256,"targets":["Device.X."]})");
}

TEST(Import, WhatTriggersIsASwitchAndWhatIsSecuredIsSecret)
{
    imported result = import_text(
        with_object(R"(<parameter name="P" access="readWrite"><syntax command="true"><boolean/></syntax></parameter>
        <parameter name="Q" access="readWrite"><syntax secured="true"><string/></syntax></parameter>)"));
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"switch","default":false,"access":"readWrite"})");
    EXPECT_EQ(result.node("Device/X/Q"), R"({"type":"string","default":"","secret":true,"access":"readWrite"})");
}

TEST(Import, DeclaredDefaultsAreTaken)
{
    auto with_default = [](const std::string &type, const std::string &value) {
        return parameter("<" + type + R"(/><default type="object" value=")" + value + R"("/>)");
    };
    EXPECT_EQ(with_default("string", "a &lt;b&gt;"), R"({"type":"string","default":"a <b>"})");
    EXPECT_EQ(with_default("boolean", "true"), R"({"type":"boolean","default":true})");
    EXPECT_EQ(with_default("boolean", "1"), R"({"type":"boolean","default":true})");
    EXPECT_EQ(with_default("boolean", "false"), R"({"type":"boolean","default":false})");
    EXPECT_EQ(with_default("int", "-7"), R"({"type":"int","default":-7})");
    EXPECT_EQ(with_default("decimal", "2.5"), R"({"type":"decimal","default":2.5})");
    EXPECT_EQ(with_default("unsignedLong", "9223372036854775807"),
              R"({"type":"unsignedLong","default":9223372036854775807})");
    EXPECT_EQ(parameter(R"(<list/><string/><default type="object" value="[A,B]"/>)"),
              R"({"type":"string","default":"A,B"})");
    EXPECT_EQ(parameter(R"(<list/><string/><default type="object" value="[]"/>)"), R"({"type":"string","default":""})");
}

TEST(Import, ADefaultOfTheWrongTypeIsReplaced)
{
    EXPECT_EQ(parameter(R"(<unsignedInt><range minInclusive="5"/></unsignedInt><default type="object" value="-1"/>)"),
              R"({"type":"unsignedInt","default":5,"minInclusive":5})");
    EXPECT_EQ(parameter(R"(<int/><default type="object" value="many"/>)"), R"({"type":"int","default":0})");
    EXPECT_EQ(parameter(R"(<boolean/><default type="object" value="maybe"/>)"),
              R"({"type":"boolean","default":false})");
}

TEST(Import, MissingDefaultsAreMadeWithinTheConstraints)
{
    EXPECT_EQ(parameter(R"(<string><enumeration value="Up"/><enumeration value="Down"/></string>)"),
              R"({"type":"string","default":"Up","enum":["Up","Down"]})");
    EXPECT_EQ(parameter(R"(<int><range minInclusive="-5" maxInclusive="5"/></int>)"),
              R"({"type":"int","default":0,"minInclusive":-5,"maxInclusive":5})");
    EXPECT_EQ(parameter(R"(<int><range maxInclusive="-3"/></int>)"),
              R"({"type":"int","default":-3,"maxInclusive":-3})");
    EXPECT_EQ(parameter(R"(<string><size minLength="3" maxLength="8"/></string>)"),
              R"({"type":"string","default":"000","minLength":3,"maxLength":8})");
    EXPECT_EQ(parameter(R"(<hexBinary><size minLength="3" maxLength="3"/></hexBinary>)"),
              R"({"type":"hexBinary","default":"000000","minLength":3,"maxLength":3})");
    EXPECT_EQ(parameter(R"(<base64><size minLength="4"/></base64>)"),
              R"({"type":"base64","default":"AAAAAA==","minLength":4})");
    EXPECT_EQ(
        parameter(R"(<list minItems="2"/><unsignedInt><range minInclusive="7"/></unsignedInt>)"),
        R"({"type":"string","default":"7,7","minCount":2,"itemRanges":[[7,null]],"regex":"^[0-9]+(?: *, *[0-9]+(?= *,|$))*+$"})");
}

TEST(Import, PatternsMeanOneOfThemAndAreAnchored)
{
    EXPECT_EQ(parameter(R"(<string><pattern value="[A-Z]{2}"/></string>)"),
              R"({"type":"string","default":"","regex":"^[A-Z]{2}$"})");
    EXPECT_EQ(parameter(R"(<string><pattern value=""/><pattern value="a|b"/></string>)"),
              R"({"type":"string","default":"","regex":"^(?:|a|b)$"})");
    EXPECT_EQ(parameter(R"(<string><pattern value="a|b"/></string>)"),
              R"({"type":"string","default":"","regex":"^(?:a|b)$"})");
}

TEST(Import, APatternThatCannotBeUnderstoodIsLeftOutAloud)
{
    imported result = import_text(with_syntax(R"(<string><pattern value="\i\c*"/></string>)"));
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"string","default":""})");
    EXPECT_EQ(result.warnings, "line 3: Device.X.P: the pattern \"\\i\\c*\" cannot be understood; left out\n");
}

TEST(Import, RangesWithGapsBecomeTheirValuesOrTheirBounds)
{
    EXPECT_EQ(
        parameter(
            R"(<int><range minInclusive="4" maxInclusive="4"/><range minInclusive="6" maxInclusive="6"/><range minInclusive="-1" maxInclusive="-1"/></int>)"),
        R"({"type":"int","default":-1,"enum":[-1,4,6]})");
    EXPECT_EQ(
        parameter(
            R"(<int><range minInclusive="0" maxInclusive="15"/><range minInclusive="16" maxInclusive="31"/></int>)"),
        R"({"type":"int","default":0,"minInclusive":0,"maxInclusive":31})");
    EXPECT_EQ(
        parameter(
            R"(<unsignedInt><range minInclusive="0" maxInclusive="0"/><range minInclusive="512"/></unsignedInt>)"),
        R"({"type":"unsignedInt","default":0,"ranges":[[null,0],[512,null]]})");
    EXPECT_EQ(parameter(R"(<int><range minInclusive="-10" maxInclusive="10" step="5"/></int>)"),
              R"({"type":"int","default":0,"minInclusive":-10,"maxInclusive":10,"ranges":[[-10,10,5]]})");
    EXPECT_EQ(
        parameter(
            R"(<string><size minLength="2" maxLength="2"/><size minLength="5"/><pattern value="[a-z]*"/></string>)"),
        R"({"type":"string","default":"","minLength":2,"lengths":[[2,2],[5,null]],"regex":"^[a-z]*$"})");
    EXPECT_EQ(parameter(R"(<string><size minLength="0" maxLength="0"/><size minLength="5" maxLength="7"/></string>)"),
              R"({"type":"string","default":"","minLength":0,"maxLength":7,"regex":"^(?:|[\\s\\S]{5,7})$"})");
    // Between the ends of a decimal's range there is more than whole numbers.
    EXPECT_EQ(
        parameter(
            R"(<decimal><range minInclusive="1" maxInclusive="2"/><range minInclusive="4" maxInclusive="5"/></decimal>)"),
        R"({"type":"decimal","default":1.0,"minInclusive":1,"maxInclusive":5,"ranges":[[1,2],[4,5]]})");
}

TEST(Import, StepsWithoutABeginningAreCountedFromNothing)
{
    const auto step = [](const char *type, const char *end, const char *by) {
        return parameter(std::string("<") + type + "><range maxInclusive=\"" + end + "\" step=\"" + by + "\"/></" +
                         type + ">");
    };
    EXPECT_EQ(step("int", "-3", "5"), R"({"type":"int","default":-5,"maxInclusive":-3,"ranges":[[null,-3,5]]})");
    EXPECT_EQ(step("int", "-5", "5"), R"({"type":"int","default":-5,"maxInclusive":-5,"ranges":[[null,-5,5]]})");
    EXPECT_EQ(step("int", "-6", "5"), R"({"type":"int","default":-10,"maxInclusive":-6,"ranges":[[null,-6,5]]})");
    EXPECT_EQ(step("int", "-1", "1"), R"({"type":"int","default":-1,"maxInclusive":-1})");
    EXPECT_EQ(step("int", "7", "5"), R"({"type":"int","default":0,"maxInclusive":7,"ranges":[[null,7,5]]})");
    EXPECT_EQ(step("decimal", "-3", "2"),
              R"({"type":"decimal","default":-4.0,"maxInclusive":-3,"ranges":[[null,-3,2]]})");
    EXPECT_EQ(step("long", "-9223372036854775807", "9223372036854775807"),
              R"({"type":"long","default":-9223372036854775807,"maxInclusive":-9223372036854775807,)"
              R"("ranges":[[null,-9223372036854775807,9223372036854775807]]})");
    EXPECT_TRUE(parameter(R"(<list minItems="1"/><int><range maxInclusive="-3" step="5"/></int>)")
                    .starts_with(R"({"type":"string","default":"-5","minCount":1,"itemRanges":[[null,-3,5]],)"));
}

TEST(Import, TheVersionOfTheModelIsNoObjectOfIt)
{
    imported result = import_text(document("", R"x(
      <parameter name="DataModelVersion"><syntax><int/></syntax></parameter>
      <object name="DataModelVersion."><parameter name="A"><syntax><int/></syntax></parameter></object>
      <object name="DataModelVersion.B."/>
      <object name="Device.DataModelVersion."><parameter name="A"><syntax><int/></syntax></parameter></object>)x"));
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.warnings, "line 4: DataModelVersion: is where the version of the model stands; left out\n"
                               "line 5: DataModelVersion.: is where the version of the model stands; left out\n"
                               "line 6: DataModelVersion.B.: there is no DataModelVersion.; left out\n");
    EXPECT_EQ(result.node("Device/DataModelVersion/A"), R"({"type":"int","default":0})");
    EXPECT_EQ(result.node("DataModelVersion"), R"({"type":"string","default":"2.19"})");
    EXPECT_EQ(result.counts.objects, 2U);
    EXPECT_EQ(result.counts.parameters, 1U);
}

TEST(Import, AnEnumerationBeginsWithItsFirstValue)
{
    EXPECT_EQ(parameter(R"(<decimal><enumeration value="1.5"/><enumeration value="2"/></decimal>)"),
              R"({"type":"decimal","default":1.5,"enum":[1.5,2.0]})");
    EXPECT_EQ(parameter(R"(<boolean><enumeration value="true"/></boolean>)"),
              R"({"type":"boolean","default":true,"enum":[true]})");
    EXPECT_TRUE(parameter(R"(<list minItems="2"/><decimal><enumeration value="1.5"/></decimal>)")
                    .starts_with(R"({"type":"string","default":"1.5,1.5","minCount":2,)"));
    EXPECT_TRUE(parameter(R"(<list minItems="2"/><boolean><enumeration value="true"/></boolean>)")
                    .starts_with(R"({"type":"string","default":"true,true","minCount":2,)"));
}

TEST(Import, RangesMayBeAsWideAsAnyNumber)
{
    EXPECT_EQ(
        parameter(
            R"(<long><range minInclusive="-9223372036854775808" maxInclusive="0"/><range minInclusive="5" maxInclusive="9223372036854775807"/></long>)"),
        R"({"type":"long","default":0,"minInclusive":-9223372036854775808,"maxInclusive":9223372036854775807,)"
        R"("ranges":[[-9223372036854775808,0],[5,9223372036854775807]]})");
    EXPECT_EQ(
        parameter(
            R"(<long><range minInclusive="-9223372036854775807" maxInclusive="9223372036854775807" step="2"/></long><default type="object" value="9223372036854775807"/>)"),
        R"({"type":"long","default":9223372036854775807,"minInclusive":-9223372036854775807,)"
        R"("maxInclusive":9223372036854775807,"ranges":[[-9223372036854775807,9223372036854775807,2]]})");
    // Beyond that there is no bound.
    EXPECT_EQ(parameter(R"(<long><range minInclusive="-9223372036854775809" maxInclusive="5"/></long>)"),
              R"({"type":"long","default":0,"maxInclusive":5})");
    // Two ranges of few values, together of too many to be told one by one.
    EXPECT_EQ(
        parameter(
            R"(<int><range minInclusive="1" maxInclusive="40"/><range minInclusive="50" maxInclusive="89"/></int>)"),
        R"({"type":"int","default":1,"minInclusive":1,"maxInclusive":89,"ranges":[[1,40],[50,89]]})");
    EXPECT_EQ(parameter(R"(<unsignedLong/><default type="object" value="18446744073709551615"/>)"),
              R"({"type":"unsignedLong","default":"18446744073709551615"})");
}

TEST(Import, SizesThatNoExpressionCountsAreLengths)
{
    const std::string two = R"(<size minLength="1" maxLength="2"/><size minLength="70000" maxLength="80000"/>)";
    EXPECT_EQ(parameter("<string>" + two + "</string>"),
              R"({"type":"string","default":"0","minLength":1,"maxLength":80000,"lengths":[[1,2],[70000,80000]]})");
    EXPECT_EQ(parameter("<list/><string>" + two + "</string>"),
              R"({"type":"string","default":"","itemLengths":[[1,2],[70000,80000]]})");
    EXPECT_EQ(parameter(R"(<list/><string><size maxLength="70000"/></string>)"),
              R"({"type":"string","default":"","itemLengths":[[null,70000]]})");
    EXPECT_EQ(
        parameter(R"(<list/><string><size minLength="1" maxLength="1"/><size minLength="3" maxLength="4"/></string>)"),
        R"({"type":"string","default":"","regex":"^(?:|(?:[^,]{1}|[^,]{3,4}))"
        R"((?: *, *(?:[^,]{1}|[^,]{3,4})(?= *,|$))*+)$"})");
}

TEST(Import, WhatIsTooMuchForAnExpressionIsLeftOutAlone)
{
    const std::string said = "line 3: Device.X.P: what it may be is too much for an expression; left out\n";
    imported result =
        import_text(with_syntax(R"(<list/><hexBinary><size minLength="1000" maxLength="30000"/></hexBinary>)"));
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"string","default":"","itemLengths":[[2000,60000]]})");
    EXPECT_EQ(result.warnings, said);
    std::string words;
    for (int i = 10000; i < 13000; i++)
        words += "<enumeration value=\"Word" + std::to_string(i) + "\"/>";
    result = import_text(with_syntax("<list/><string>" + words + "</string>"));
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"string","default":""})");
    EXPECT_EQ(result.warnings, said);
}

TEST(Import, ListsAreTextsWhoseItemsAreChecked)
{
    EXPECT_EQ(
        parameter(
            R"(<list maxItems="4"><size maxLength="99"/></list><string><enumeration value="A+"/><enumeration value="B"/></string>)"),
        R"({"type":"string","default":"","maxCount":4,"maxLength":99,"regex":"^(?:|(?:A\\+|B)(?: *, *(?:A\\+|B)(?= *,|$))*+)$"})");
    EXPECT_EQ(parameter(R"(<list/><string><pathRef refType="strong" targetType="row"/></string>)"),
              R"({"type":"string","default":"","targets":[],"targetType":"row"})");
    EXPECT_EQ(
        parameter(R"(<list minItems="2"/><boolean/>)"),
        R"({"type":"string","default":"false,false","minCount":2,"regex":"^(?:true|false|0|1)(?: *, *(?:true|false|0|1)(?= *,|$))*+$"})");
    EXPECT_EQ(
        parameter(
            R"(<list nestedBrackets="required" minItems="2"/><dataType ref="Pair"/><default type="object" value="[[1,2],[3,4]]"/>)",
            R"(<dataType name="Pair"><list minItems="2" maxItems="2"/><unsignedInt/></dataType>)"),
        R"({"type":"string","default":"[1,2],[3,4]"})");
}

TEST(Import, ItemsThatAreEncodedCountAsTheyAreWritten)
{
    EXPECT_EQ(parameter(R"(<list/><hexBinary><size minLength="1" maxLength="1"/><size minLength="3"/></hexBinary>)"),
              R"({"type":"string","default":"","regex":"^(?:|(?:(?:[0-9A-Fa-f]{2}){1}|(?:[0-9A-Fa-f]{2}){3,}))"
              R"((?: *, *(?:(?:[0-9A-Fa-f]{2}){1}|(?:[0-9A-Fa-f]{2}){3,})(?= *,|$))*+)$"})");
    EXPECT_EQ(parameter(R"(<list/><base64><size minLength="4" maxLength="6"/></base64>)"),
              R"({"type":"string","default":"","itemLengths":[[8,8]]})");
}

// Some lists of the standard's take thousands of items.
TEST(Import, ALongListFits)
{
    const auto takes = [](const std::string &syntax, const std::string &value) {
        imported result = import_text(with_syntax(syntax));
        const json_t *root = json_object_get(result.model.get(), "root");
        const json_t *at = json_object_get(json_object_get(root, "Device"), "children");
        at = json_object_get(json_object_get(json_object_get(at, "X"), "children"), "P");
        std::string why;
        const auto compiled = pattern::compile(json_string_value(json_object_get(at, "regex")), &why);
        return compiled != nullptr && compiled->matches(value);
    };
    const auto list = [](const std::string &item) {
        std::string text = item;
        for (int i = 1; i < 20000; ++i)
            text += "," + item;
        return text;
    };
    EXPECT_TRUE(takes("<list/><unsignedInt/>", list("12")));
    EXPECT_TRUE(takes("<list/><int/>", list(" -12 ").substr(1) + ", 7"));
    EXPECT_FALSE(takes("<list/><int/>", list("1") + "x"));
    const std::string words = R"(<list/><string><enumeration value="A"/><enumeration value="AB"/></string>)";
    EXPECT_TRUE(takes(words, list("AB")));
    EXPECT_TRUE(takes(words, "A,AB ,A, AB"));
    EXPECT_FALSE(takes(words, "A,AC"));
    EXPECT_FALSE(takes(words, "A,"));
    const std::string sized = R"(<list/><string><size minLength="2" maxLength="3"/></string>)";
    EXPECT_TRUE(takes(sized, list("abc")));
    EXPECT_TRUE(takes(sized, "ab ,abc , ab"));
    EXPECT_FALSE(takes(sized, "ab,a"));
    EXPECT_FALSE(takes(sized, "ab,abcd"));
}

TEST(Import, DataTypesAreFollowedAndRestricted)
{
    const std::string types = R"(
      <dataType name="Base"><string><size maxLength="45"/><pattern value="[0-9.]*"/></string></dataType>
      <dataType name="Middle" base="Base"><size maxLength="15"/></dataType>
      <dataType name="Leaf" base="Middle"><description>Text</description><pattern value=""/><pattern value="1.*"/></dataType>
      <dataType name="Alias" base="Leaf"/>
      <dataType name="Count"><unsignedInt><range maxInclusive="100"/></unsignedInt></dataType>)";
    EXPECT_EQ(parameter(R"(<dataType ref="Middle"/>)", types),
              R"({"type":"string","default":"","maxLength":15,"regex":"^[0-9.]*$"})");
    EXPECT_EQ(parameter(R"(<dataType ref="Alias"/>)", types),
              R"({"type":"string","default":"","maxLength":15,"regex":"^(?=[0-9.]*$)(?:|1.*)$"})");
    EXPECT_EQ(parameter(R"(<dataType base="Count"><range minInclusive="10" maxInclusive="1000"/></dataType>)", types),
              R"({"type":"unsignedInt","default":10,"minInclusive":10,"maxInclusive":100})");
}

TEST(Import, CommandsBecomeMethodsWithTheirArguments)
{
    imported result = import_text(document("", R"x(
      <object name="Device.X.">
        <command name="Run()" async="true">
          <input>
            <parameter name="Host" mandatory="true"><syntax><string><size maxLength="9"/></string></syntax></parameter>
            <parameter name="Both"><syntax><int/><default type="parameter" value="3"/></syntax></parameter>
            <object name="Options." minEntries="1" maxEntries="1"><parameter name="Fast"><syntax><boolean/></syntax></parameter></object>
          </input>
          <output>
            <parameter name="Both"><syntax><string/></syntax></parameter>
            <parameter name="Gone" status="deleted"><syntax><string/></syntax></parameter>
            <parameter name="Status"><syntax><string><enumeration value="Complete"/></string></syntax></parameter>
            <object name="Result.{i}." minEntries="0" maxEntries="unbounded"><parameter name="Time"><syntax><unsignedInt/></syntax></parameter></object>
            <object name="Result.{i}.Hop.{i}." minEntries="0" maxEntries="unbounded"><parameter name="Address"><syntax><string/></syntax></parameter></object>
            <object name="Options." minEntries="1" maxEntries="1">
              <parameter name="Fast"><syntax><string/></syntax></parameter><parameter name="Used"><syntax><boolean/></syntax></parameter>
            </object>
          </output>
        </command>
        <command name="Nothing()"/>
        <command name="Gone()" status="deleted"/>
        <event name="Happened!"><parameter name="Why"><syntax><string/></syntax></parameter></event>
      </object>)x"));
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.node("Device/X/Run/input/Host"),
              R"({"type":"string","default":"","maxLength":9,"mandatory":true})");
    EXPECT_EQ(result.node("Device/X/Run/input/Both"), R"({"type":"int","default":3})");
    EXPECT_EQ(result.node("Device/X/Run/input/Options/Fast"), R"({"type":"boolean","default":false})");
    EXPECT_EQ(result.node("Device/X/Run/output/Both"), "(none)");
    EXPECT_EQ(result.node("Device/X/Run/output/Gone"), "(none)");
    EXPECT_EQ(result.node("Device/X/Run/output/Status"),
              R"({"type":"string","default":"Complete","enum":["Complete"]})");
    EXPECT_EQ(result.node("Device/X/Run/output/Result/1/Time"), R"({"type":"unsignedInt","default":0})");
    EXPECT_EQ(result.node("Device/X/Run/output/Result/1/Hop/1/Address"), R"({"type":"string","default":""})");
    EXPECT_EQ(result.node("Device/X/Run/output/Options/Fast"), "(none)");
    EXPECT_EQ(result.node("Device/X/Run/output/Options/Used"), R"({"type":"boolean","default":false})");
    EXPECT_EQ(result.node("Device/X/Nothing"), R"({"type":"method","input":{},"output":{}})");
    EXPECT_EQ(result.node("Device/X/Gone"), "(none)");
    EXPECT_EQ(result.node("Device/X/Happened!"), "(none)");
    EXPECT_EQ(result.counts.commands, 2U);
    EXPECT_EQ(result.counts.inputs, 3U);
    EXPECT_EQ(result.counts.outputs, 6U);
}

TEST(Import, CommandsAndEventsThatCannotBeServedAreLeftOutAlone)
{
    imported result = import_text(document("", R"x(
      <object name="Device.X.">
        <command name="Run.It()"/>
        <command name="Run()"/>
        <command name="Run()"/>
        <command name="Ask()"><input>
          <object name="No path"><parameter name="A"><syntax><int/></syntax></parameter></object>
          <parameter name="B"><syntax><int/></syntax></parameter>
          <object name="B."><parameter name="C"><syntax><int/></syntax></parameter></object>
        </input></command>
        <event name="1!"/>
        <event name="Now!"/>
        <event name="Now!"/>
      </object>
      <object name="Device.T.{i}.">
        <uniqueKey><parameter ref="None"/></uniqueKey>
        <parameter name="P"><syntax><string/></syntax></parameter>
      </object>)x"));
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.warnings, R"(line 5: Device.X.Run.It: "Run.It" is no name that can be served; left out
line 7: Device.X.Run: is declared twice; left out
line 9: Device.X.Ask.No path: is no path of an object; left out
line 11: Device.X.Ask.B.: is a parameter and an object; left out
line 13: Device.X.1!: "1" is no name of an event; left out
line 15: Device.X.Now!: is declared twice; left out
line 18: Device.T.{i}.: there is no "None" for a unique key; the key is left out
)");
    EXPECT_EQ(result.node("Device/X/Ask"), R"({"type":"method","input":{"B":{"type":"int","default":0}},"output":{}})");
}

TEST(Import, ArgumentsThatStandTooDeepAreLeftOutAlone)
{
    std::string
        deep; // with Device., X. and the method itself, and a level for the argument, one more than there may be
    for (int i = 0; i < scheme_deepest - 3; ++i)
        deep += "O.";
    const auto argument = [](const std::string &object) {
        return "<object name=\"" + object + R"("><parameter name="A"><syntax><int/></syntax></parameter></object>)";
    };
    const imported result = import_text(
        with_object("<command name=\"Run()\"><input>" + argument(deep) + argument(deep.substr(2)) +
                    "</input></command><event name=\"Done!\">" + argument("O." + deep) + argument(deep) + "</event>"));
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.warnings, "line 3: Device.X.Run." + deep + ": is nested too deep; left out\n" +
                                   "line 3: Device.X.Done!.O." + deep + ": is nested too deep; left out\n");
    EXPECT_EQ(result.counts.inputs, 1U);
}

TEST(Import, CommandsThatTheDaemonKnowsAreConnected)
{
    imported result = import_text(document("", R"x(<object name="Device.IP."/><object name="Device.IP.Diagnostics.">
        <command name="IPPing()"/><command name="TraceRoute()"/></object>)x"));
    EXPECT_EQ(result.node("Device/IP/Diagnostics/IPPing"),
              R"({"type":"method","input":{},"output":{},"method":"IPPing"})");
    EXPECT_EQ(result.node("Device/IP/Diagnostics/TraceRoute"), R"({"type":"method","input":{},"output":{}})");
}

TEST(Import, WhatIsDeletedIsNotThere)
{
    imported result = import_text(document("", R"x(
      <object name="Device.X.">
        <parameter name="Gone" status="deleted"><syntax><string/></syntax></parameter>
        <parameter name="New" status="current"><syntax><int/></syntax></parameter>
        <parameter name="Old" status="obsoleted"><syntax><string><enumeration value="A" status="deleted"/><enumeration value="B"/></string></syntax></parameter>
      </object>
      <object name="Device.Y." status="deleted"><parameter name="P"><syntax><string/></syntax></parameter></object>
      <object name="Device.Y.Z."><parameter name="P"><syntax><string/></syntax></parameter></object>
      <object name="Device.Z."><command name="Run()"><input>
        <object name="Old." status="deleted"><parameter name="P"><syntax><int/></syntax></parameter></object>
        <reference/></input><reference/></command></object></model>
      <model name="Other:1.0" status="deleted"><object name="Other."></object>)x"));
    EXPECT_EQ(result.node("Device/X/Gone"), "(none)");
    EXPECT_EQ(result.node("Device/X/New"), R"({"type":"int","default":0})");
    EXPECT_EQ(result.node("Device/Z/Run"), R"({"type":"method","input":{},"output":{}})");
    EXPECT_EQ(result.node("Other"), "(none)");
    EXPECT_EQ(result.node("Device/X/Old"), R"({"type":"string","default":"B","enum":["B"],"status":"obsoleted"})");
    EXPECT_EQ(result.node("Device/Y"), "(none)");
    EXPECT_EQ(result.warnings, "line 10: Device.Y.Z.: there is no Device.Y.; left out\n");
    EXPECT_EQ(result.counts.parameters, 2U);
}

// --- what is wrong ---

TEST(Import, WhatIsNoDataModelIsSaidSo)
{
    EXPECT_EQ(error_of("<html><body/></html>"), "line 1: not a Broadband Forum data model (its root is \"html\")");
    EXPECT_EQ(error_of("<document><model/></document>"),
              "line 1: not a Broadband Forum data model (its root is \"document\")");
    EXPECT_EQ(error_of("\n{\"format\": 1}"), "line 2: not well-formed (invalid token)");
    EXPECT_EQ(error_of(""), "line 1: no element found (the file ends too early)");
    EXPECT_EQ(
        error_of(
            R"(<d:document xmlns:d="urn:broadband-forum-org:cwmp:datamodel-1-0"><dataType name="A"><string/></dataType></d:document>)"),
        "not a Broadband Forum data model (it declares no objects)");
    EXPECT_EQ(error_of(std::string("\x1f\x8b\x08\0\0\0", 6)), "the compressed file ends too early");
}

TEST(Import, ATruncatedDocumentIsAnErrorWhereverItEnds)
{
    std::string whole = document(
        R"(<dataType name="A"><string/></dataType>)",
        R"(<object name="Device.X."><parameter name="P"><syntax><dataType ref="A"/></syntax></parameter></object>)");
    ASSERT_TRUE(import_text(whole).model);
    size_t end = whole.rfind('>');
    for (size_t length = 0; length <= end; length += 13) {
        std::string error = error_of(whole.substr(0, length));
        EXPECT_TRUE(error.starts_with("line ")) << error;
    }
    EXPECT_EQ(error_of(whole.substr(0, end)), "line 3: unclosed token (the file ends too early)");
}

// What is said of a parameter Device.X.P that is not there then.
std::string left_out(const std::string &syntax, const std::string &types = "")
{
    imported result = import_text(with_syntax(syntax, types));
    EXPECT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.node("Device/X"), R"({"type":"object"})");
    EXPECT_EQ(result.node("Device/X/P"), "(none)");
    return result.warnings;
}

TEST(Import, ACycleOfTypesIsNamed)
{
    EXPECT_EQ(
        left_out(
            R"(<dataType ref="A"/>)",
            R"(<dataType name="A" base="B"/><dataType name="B"><dataType ref="C"/></dataType><dataType name="C" base="A"/>)"),
        "line 3: Device.X.P: a data type is based on itself: A -> B -> C -> A; left out\n");
    EXPECT_EQ(left_out(R"(<dataType ref="A"/>)", R"(<dataType name="A" base="A"/>)"),
              "line 3: Device.X.P: a data type is based on itself: A -> A; left out\n");
    EXPECT_EQ(left_out(R"(<dataType ref="X"/>)",
                       R"(<dataType name="X" base="A"/><dataType name="A" base="B"/><dataType name="B" base="A"/>)"),
              "line 3: Device.X.P: a data type is based on itself: A -> B -> A; left out\n");
}

TEST(Import, TypesThatAreNotThereAreNamed)
{
    EXPECT_EQ(left_out(R"(<dataType ref="Nobody"/>)"),
              "line 3: Device.X.P: there is no data type \"Nobody\"; left out\n");
    EXPECT_EQ(left_out(R"(<dataType ref="Empty"/>)", R"(<dataType name="Empty"/>)"),
              "line 3: Device.X.P: the data type \"Empty\" has no type; left out\n");
    EXPECT_EQ(left_out("<list/>"), "line 3: Device.X.P: no type; left out\n");
}

TEST(Import, WhatContradictsItselfIsLeftOut)
{
    EXPECT_EQ(left_out(R"(<string><size minLength="5"/><enumeration value="A"/></string>)"),
              "line 3: Device.X.P: \"default\" must have at least 5 characters; left out\n");
}

TEST(Import, WhatIsSaidOfAnObjectWithoutANameNamesItsModel)
{
    const imported result = import_text(document("", R"(<object name="" minEntries="few"/>)"));
    EXPECT_TRUE(contains(result.warnings, "line 3: Device:2.19: minEntries \"few\" is no number; left out\n"))
        << result.warnings;
}

TEST(Import, WhatIsSaidOfArgumentsNamesWhatTheyAreOf)
{
    imported result = import_text(document("", R"x(<object name="Device.X.">
      <command name="Run()"><input><parameter name="A"><syntax><int/><string/></syntax></parameter></input></command>
      <event name="Done!"><parameter name="B"><syntax><int/><string/></syntax></parameter></event></object>)x"));
    EXPECT_EQ(result.warnings, "line 4: Device.X.Run().A: a second type, string, where one is expected; left out\n"
                               "line 5: Device.X.Done!.B: a second type, string, where one is expected; left out\n");
}

TEST(Import, WhatIsWrongWithAPartOfATypeIsLeftOutAlone)
{
    auto said = [](const std::string &syntax, const std::string &types = "") {
        imported result = import_text(with_syntax(syntax, types));
        return result.node("Device/X/P") + " " + result.warnings;
    };
    EXPECT_EQ(said("<string/><int/>"), "{\"type\":\"string\",\"default\":\"\"} line 3: Device.X.P: a second type, int, "
                                       "where one is expected; left out\n");
    EXPECT_EQ(said(R"(<string><size minLength=" 2 " maxLength="long"/></string>)"),
              "{\"type\":\"string\",\"default\":\"00\",\"minLength\":2} line 3: Device.X.P: maxLength \"long\" is no "
              "number; left out\n");
    EXPECT_EQ(said(R"(<int><enumeration value="one"/><enumeration value="2"/></int>)"),
              "{\"type\":\"int\",\"default\":2,\"enum\":[2]} line 3: Device.X.P: \"one\" is no value of type int; left "
              "out of the enumeration\n");
    EXPECT_EQ(said(R"(<list/><string><size maxLength="-1"/></string>)"),
              "{\"type\":\"string\",\"default\":\"\"} line 3: Device.X.P: maxLength -1 is no size; left out\n");
    EXPECT_TRUE(said(R"(<list/><decimal><range minInclusive="1"/></decimal>)")
                    .ends_with("line 3: Device.X.P: the range of the items of a list is kept of integers only; left "
                               "out\n"));
    EXPECT_EQ(said(R"(<unsignedInt><enumerationRef targetParam="Q"/></unsignedInt>)"),
              "{\"type\":\"unsignedInt\",\"default\":0} line 3: Device.X.P: that its values are those of \"Q\" is kept "
              "of a text only; left out\n");
    EXPECT_EQ(said(R"(<dataType ref="A"/>)",
                   R"(<dataType name="A"><int/></dataType><dataType name="A"><string/></dataType>)"),
              "{\"type\":\"int\",\"default\":0} line 3: data type \"A\": is declared twice; this declaration is left "
              "out\n");
    EXPECT_EQ(said(R"(<int><range minInclusive="5"/></int><default type="object" value="2"/>)"),
              "{\"type\":\"int\",\"default\":5,\"minInclusive\":5} line 3: Device.X.P: \"default\" must be at least 5; "
              "the default is left out\n");
}

TEST(Import, WhatNothingCanFulfilIsLeftOutAlone)
{
    auto said = [](const std::string &xml, const std::string &path = "Device/X/P") {
        imported result = import_text(xml);
        return result.node(path) + " " + result.warnings;
    };
    EXPECT_EQ(said(with_syntax(R"(<int><range minInclusive="9" maxInclusive="3"/></int>)")),
              "{\"type\":\"int\",\"default\":0} line 3: Device.X.P: minInclusive 9 is more than maxInclusive 3; left "
              "out\n");
    EXPECT_EQ(said(with_syntax(R"(<string><size minLength="4" maxLength="3"/><size maxLength="5"/></string>)")),
              "{\"type\":\"string\",\"default\":\"\",\"maxLength\":5} line 3: Device.X.P: minLength 4 is more than "
              "maxLength 3; left out\n");
    EXPECT_EQ(said(document("", R"(<object name="Device.T.{i}." minEntries="5" maxEntries="2"/>)"), "Device/T"),
              "{\"type\":\"object\",\"multi\":true,\"maxCount\":2} line 3: Device.T.{i}.: cannot have 5 instances "
              "always; left out\n");
    // More than a device can be made with; the model stays.
    EXPECT_EQ(said(document("", R"(<object name="Device.T.{i}." minEntries="5000" maxEntries="5000"/>)"), "Device/T"),
              "{\"type\":\"object\",\"multi\":true,\"maxCount\":5000} line 3: Device.T.{i}.: cannot have 5000 "
              "instances always; left out\n");
    EXPECT_EQ(said(document("", R"(<object name="Device.T.{i}." numEntriesParameter="Number"/>)"), "Device/T"),
              "{\"type\":\"object\",\"multi\":true,\"minCount\":1,\"maxCount\":1} line 3: Device.T.{i}.: there is no "
              "number \"Number\" that counts its instances\n");
}

TEST(Import, BlanksAroundNumbersSayNothing)
{
    EXPECT_EQ(parameter(R"(<int><enumeration value=" 1"/><enumeration value="2 "/></int><default value=" 2 "/>)"),
              R"({"type":"int","default":2,"enum":[1,2]})");
    EXPECT_EQ(parameter(R"(<boolean/><default value=" true "/>)"), R"({"type":"boolean","default":true})");
    EXPECT_EQ(parameter(R"(<string/><default value=" a  b "/>)"), R"({"type":"string","default":" a  b "})");
}

TEST(Import, ADeletedDataTypeMakesRoomForAnother)
{
    imported result =
        import_text(with_syntax(R"(<dataType ref="A"/>)", R"(<dataType name="A" status="deleted"><int/></dataType>)"
                                                          R"(<dataType name="A"><string/></dataType>)"));
    EXPECT_EQ(result.node("Device/X/P") + result.warnings, R"({"type":"string","default":""})");
}

TEST(Import, NamesThatCannotBeServedAreLeftOutAlone)
{
    for (const char *name : {"", "a.b", "a b", "1a", "\xc3\xa9"}) {
        imported result = import_text(with_object(
            R"(<parameter name=")" + std::string(name) +
            R"("><syntax><string/></syntax></parameter><parameter name="Q"><syntax><string/></syntax></parameter>)"));
        EXPECT_EQ(result.warnings, "line 3: Device.X." + std::string(name) + ": \"" + name +
                                       "\" is no name that can be served; left out\n");
        EXPECT_EQ(result.node("Device/X/Q"), R"({"type":"string","default":""})") << name;
    }
    auto said = [](const std::string &xml) {
        imported result = import_text(xml);
        EXPECT_TRUE(result.model) << result.error;
        return result.warnings;
    };
    EXPECT_EQ(said(document("", R"(<object name="Device"/>)")),
              "line 3: \"Device\": is no path of an object; left out\n");
    EXPECT_EQ(said(document("", R"(<object name="Device.A."/><object name="Device.A."/>)")),
              "line 3: Device.A.: is declared twice; left out\n");
    EXPECT_EQ(
        said(with_object(
            R"(<parameter name="P"><syntax><string/></syntax></parameter><parameter name="P"><syntax><int/></syntax></parameter>)")),
        "line 3: Device.X.P: is declared twice; left out\n");
    EXPECT_EQ(said(with_object(R"x(<command name="P()"/><command name="P()"/>)x")),
              "line 3: Device.X.P: is declared twice; left out\n");
}

TEST(Import, AnEnumerationMayBeWhatAnotherParameterLists)
{
    const auto refers = [](const char *name, const char *target, const char *list = "") {
        return std::string("<parameter name=\"") + name + "\"><syntax>" + list +
               "<string><enumerationRef targetParam=\"" + target + "\"/></string></syntax></parameter>";
    };
    imported result = import_text(with_object(
        "<parameter name=\"Known\"><syntax><list/><string/></syntax></parameter>" + refers("A", "Known") +
        refers("L", ".X.Known", "<list/>") + refers("R", "Device.X.Known") + refers("N", "Unknown") +
        refers("O", ".X.T.") +
        R"x(<parameter name="D"><syntax><string><enumerationRef targetParam="Known" status="deleted"/></string></syntax></parameter>
           <command name="Go()"><input>)x" +
        refers("I", "Known") + "</input><output>" + refers("U", "Known") +
        R"(</output></command></object>
        <object name="Device.X.T.{i}." minEntries="0" maxEntries="unbounded">
        <parameter name="Own"><syntax><list/><string/></syntax></parameter>
        <parameter name="B"><syntax><string><enumerationRef targetParam="#.Known" nullValue="None"/></string></syntax></parameter>)" +
        refers("C", "Own")));
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.node("Device/X/A"), R"({"type":"string","default":"","valuesOf":"Device.X.Known"})");
    EXPECT_EQ(result.node("Device/X/L"), R"({"type":"string","default":"","itemsOf":"Device.X.Known"})");
    EXPECT_EQ(result.node("Device/X/R"), R"({"type":"string","default":"","valuesOf":"Device.X.Known"})");
    EXPECT_EQ(result.node("Device/X/D"), R"({"type":"string","default":""})");
    EXPECT_EQ(result.node("Device/X/T/{i}/B"),
              R"({"type":"string","default":"","valuesOf":"Device.X.Known","nullValue":"None"})");
    EXPECT_EQ(result.node("Device/X/T/{i}/C"), R"({"type":"string","default":"","valuesOf":"Device.X.T.{i}.Own"})");
    EXPECT_EQ(result.warnings,
              "line 4: Device.X.Go.I: that its values are those of \"Known\" is not kept of an argument; left out\n"
              "line 3: Device.X.N: its values are to be those of \"Unknown\", which is no parameter; left out\n"
              "line 3: Device.X.O: its values are to be those of \".X.T.\", which is no parameter; left out\n");
}

TEST(Import, NamesAreTrimmedAsTokens)
{
    imported result = import_text(with_object(R"(
        <parameter name="P " access=" readWrite"><syntax><dataType ref=" Name"/></syntax></parameter>
        <parameter name="&#10;Q"><syntax><int/></syntax></parameter></object>
        <object name=" Device.X.T.{i}. " minEntries=" 0" maxEntries="unbounded "><uniqueKey functional="false"><parameter ref=" A "/></uniqueKey>
        <parameter name=" A"><syntax><string/></syntax></parameter>)",
                                              R"(<dataType name=" Name "><string/></dataType>)"));
    EXPECT_EQ(result.warnings, "");
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"string","default":"","access":"readWrite"})");
    EXPECT_EQ(result.node("Device/X/Q"), R"({"type":"int","default":0})");
    EXPECT_EQ(result.node("Device/X/T"), R"({"type":"object","multi":true})");
    EXPECT_EQ(result.node("Device/X/T/{i}/A"), R"({"type":"string","default":"","unique":true})");
}

// Two models, and the parameter beside a root that counts a service's instances.
std::string two_models()
{
    return R"(<d:document xmlns:d="urn:broadband-forum-org:cwmp:datamodel-1-2">
<model name="Box:1.4"><object name="Box."><parameter name="A"><syntax><int/></syntax></parameter></object></model>
<model name="Voice:2.0"><parameter name="VoiceNumberOfEntries"><syntax><unsignedInt/></syntax></parameter>
<object name="Voice.{i}." minEntries="0" maxEntries="unbounded" numEntriesParameter="VoiceNumberOfEntries">
<parameter name="Line"><syntax><string><pathRef targetParent=".Lines. Box." targetType="object"/></string></syntax></parameter></object>
<object name="Voice.{i}.Lines."/></model>
<model name="Box:2.0"><object name="Box."><parameter name="B"><syntax><int/></syntax></parameter></object></model></d:document>)";
}

TEST(Import, SeveralModelsAreServedBesideEachOther)
{
    imported result = import_text(two_models());
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.warnings, "line 7: Box:2.0: its root Box. is that of Box:1.4 already; left out\n");
    EXPECT_EQ(result.node("Box/A"), R"({"type":"int","default":0})");
    EXPECT_EQ(result.node("VoiceNumberOfEntries"), R"({"type":"unsignedInt","default":0,"entries":"Voice"})");
    EXPECT_EQ(result.node("Voice"), R"({"type":"object","multi":true})");
    EXPECT_EQ(result.node("Voice/{i}/Line"),
              R"({"type":"path","default":"","targets":["Voice.{i}.Lines.","Box."],"targetType":"object"})");
    EXPECT_EQ(result.node("DataModelVersion"), R"({"type":"string","default":"Box:1.4,Voice:2.0"})");
}

TEST(Import, OneOfSeveralModelsIsChosenByItsName)
{
    for (const char *name : {"Voice", "Voice:2.0"}) {
        imported result = import_text(two_models(), name);
        EXPECT_EQ(result.node("Box"), "(none)");
        EXPECT_EQ(result.node("Voice"), R"({"type":"object","multi":true})");
        EXPECT_EQ(result.node("DataModelVersion"), R"({"type":"string","default":"2.0"})");
    }
    EXPECT_EQ(import_text(two_models(), "Box:2.0").node("Box/B"), R"({"type":"int","default":0})");
    EXPECT_EQ(import_text(two_models(), "Box").error,
              "holds several models \"Box\"; its models are Box:1.4, Voice:2.0, Box:2.0");
    EXPECT_EQ(import_text(two_models(), "Fax").error,
              "holds no model \"Fax\"; its models are Box:1.4, Voice:2.0, Box:2.0");
}

TEST(Import, ADecimalBeginsAtZeroOrWhereItMay)
{
    const auto initial = [](const char *range) {
        return import_text(with_syntax(std::string("<decimal>") + range + "</decimal>")).node("Device/X/P");
    };
    EXPECT_EQ(initial(""), R"({"type":"decimal","default":0.0})");
    EXPECT_NE(initial(R"(<range minInclusive="-5" maxInclusive="5"/>)").find(R"("default":0.0)"), std::string::npos);
    EXPECT_NE(initial(R"(<range minInclusive="3" maxInclusive="5"/>)").find(R"("default":3.0)"), std::string::npos);
    EXPECT_NE(initial(R"(<range maxInclusive="-3"/>)").find(R"("default":-3.0)"), std::string::npos);
    EXPECT_NE(initial(R"(<range minInclusive="0" maxInclusive="0"/>)").find(R"("default":0.0)"), std::string::npos);
}

TEST(Import, ElementsMayHaveTheDocumentsPrefixAndOthersAreLeftOut)
{
    imported result = import_text(
        with_object(R"(<dm:parameter name="P"><dm:syntax><dm:int/></dm:syntax></dm:parameter>)"
                    R"(<n:parameter xmlns:n="urn:other" name="Q"><n:syntax><n:int/></n:syntax></n:parameter>)"));
    EXPECT_EQ(result.warnings, "");
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"int","default":0})");
    EXPECT_EQ(result.node("Device/X/Q"), "(none)");
}

TEST(Import, TheNamespaceMayBeTheUsualOne)
{
    std::string xml = with_syntax("<int/>");
    for (const char *from : {"<dm:document xmlns:dm", "</dm:document"})
        xml.replace(xml.find(from), strlen(from), from[1] == '/' ? "</document" : "<document xmlns");
    imported result = import_text(xml);
    EXPECT_EQ(result.node("Device/X/P") + result.warnings + result.error, R"({"type":"int","default":0})");
}

TEST(Import, AnUndeclaredPrefixIsAWarning)
{
    imported result = import_text(with_object(
        R"(<parameter name="P" x:previous="a" x:more="b"><syntax><int/></syntax></parameter><y:parameter name="Q"/>)"));
    EXPECT_EQ(result.warnings, "line 3: Device.X.: the prefix \"x\" is not declared\n"
                               "line 3: Device.X.: the prefix \"y\" is not declared\n");
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"int","default":0})");
    EXPECT_EQ(result.node("Device/X/Q"), "(none)");
}

TEST(Import, WhatIsSaidForPeopleIsKept)
{
    imported result = import_text(document("", R"x(
      <object name="Device.X." version="2.1"><description>
          An object.

            * indented
      </description>
        <parameter name="P" version="2.2" status="deprecated"><description>What it &lt;is&gt;.</description>
          <syntax><unsignedInt><units value="seconds"/></unsignedInt></syntax></parameter>
        <command name="Run()"><description>Runs.</description></command>
        <event name="Done!" version="2.3"><description>It is done.</description>
          <parameter name="Why"><syntax><string/></syntax></parameter>
          <object name="Step.{i}."><parameter name="Time"><syntax><int/></syntax></parameter></object></event>
      </object>)x"));
    EXPECT_EQ(result.warnings, "");
    EXPECT_EQ(
        result.node("Device/X"),
        R"x({"type":"object","description":"An object.\n\n  * indented","version":"2.1","events":{"Done":{"arguments":)x"
        R"x({"Why":{"type":"string","default":""},"Step":{"type":"object","children":{"1":{"type":"object","children":)x"
        R"x({"Time":{"type":"int","default":0}}}}}},"description":"It is done.","version":"2.3"}}})x");
    EXPECT_EQ(
        result.node("Device/X/P"),
        R"({"type":"unsignedInt","default":0,"description":"What it <is>.","version":"2.2","status":"deprecated","units":"seconds"})");
    EXPECT_EQ(result.node("Device/X/Run"), R"({"type":"method","input":{},"output":{},"description":"Runs."})");
    EXPECT_EQ(result.counts.events, 1U);
}

TEST(Import, PathsLeadToWhatTheirTargetsSay)
{
    auto targets = [](const std::string &parents, const std::string &more = "") {
        imported result =
            import_text(document("", R"(
          <object name="Device.A."><parameter name="N"><syntax><int/></syntax></parameter></object>
          <object name="Device.A.T.{i}." minEntries="0" maxEntries="unbounded">
            <parameter name="P"><syntax><string><pathRef targetType="row" targetParent=")" +
                                         parents + "\" " + more + R"(/></string></syntax></parameter></object>
          <object name="Device.A.T.{i}.S."/><object name="Device.B.{i}." minEntries="0" maxEntries="unbounded"/>)"));
        EXPECT_EQ(result.warnings, "");
        return result.node("Device/A/T/{i}/P");
    };
    auto leads = [](const std::string &list) {
        return R"({"type":"path","default":"","targets":[)" + list + R"(],"targetType":"row"})";
    };
    EXPECT_EQ(targets(".B."), leads(R"("Device.B.")"));
    EXPECT_EQ(targets(".B Device.A"), leads(R"("Device.B.","Device.A.")"));
    EXPECT_EQ(targets("Device.B."), leads(R"("Device.B.")"));
    EXPECT_EQ(targets("#.T."), leads(R"("Device.A.T.")"));
    EXPECT_EQ(targets("##.B."), leads(R"("Device.B.")"));
    EXPECT_EQ(targets("S."), leads(R"("Device.A.T.{i}.S.")"));
    EXPECT_EQ(targets("\n .B.\n  #.T.\n"), leads(R"("Device.B.","Device.A.T.")"));
    EXPECT_EQ(targets(".Nowhere."), leads(""));
    const std::string from_root = R"(targetParentScope="model")";
    EXPECT_EQ(targets("A.T. .B. #.T. Device.B. S.", from_root),
              leads(R"("Device.A.T.","Device.B.","Device.A.T.","Device.B.")"));
    EXPECT_EQ(targets("S.", R"(targetParentScope="object")"), leads(R"("Device.A.T.{i}.S.")"));
}

TEST(Import, APasswordOfTheUsersIsKeptAsAHash)
{
    imported result = import_text(document("", R"(<object name="Device.Users."/>
      <object name="Device.Users.User.{i}." access="readWrite" minEntries="0" maxEntries="unbounded" enableParameter="Enable">
        <uniqueKey functional="true"><parameter ref="Id"/></uniqueKey>
        <parameter name="Enable" access="readWrite"><syntax><boolean/></syntax></parameter>
        <parameter name="Id"><syntax><int/></syntax></parameter>
        <parameter name="Password" access="readWrite"><syntax hidden="true"><string><size maxLength="64"/></string></syntax></parameter></object>)"));
    EXPECT_EQ(result.node("Device/Users"), R"({"type":"object","write":"admin"})");
    EXPECT_EQ(
        result.node("Device/Users/User"),
        R"({"type":"object","access":"readWrite","multi":true,"write":"admin","keys":[{"parameters":["Id"],"enable":"Enable"}]})");
    EXPECT_EQ(
        result.node("Device/Users/User/{i}/Password"),
        R"({"type":"string","default":"","maxLength":64,"secret":true,"access":"readWrite","handler_set":"password"})");
    // A number is no password that a hash could be kept of.
    result = import_text(document("", R"(<object name="Device.Users."/><object name="Device.Users.User.{i}.">
        <parameter name="Password"><syntax><unsignedInt/></syntax></parameter></object>)"));
    EXPECT_EQ(result.node("Device/Users/User/{i}/Password"), R"({"type":"unsignedInt","default":0,"secret":true})");
}

TEST(Import, ACompressedDocumentIsReadLikeAPlainOne)
{
    directory temporary;
    const std::string xml = with_syntax("<int/>");
    const std::string plain = temporary.file("in.xml", xml);
    ASSERT_EQ(system(("gzip -k '" + plain + "'").c_str()), 0);
    imported result;
    result.model = import_model((plain + ".gz").c_str(), "", &result.counts, &result.said, &result.error);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.node("Device/X/P"), R"({"type":"int","default":0})");
    const std::string packed = read_file(plain + ".gz");
    EXPECT_EQ(error_of(packed.substr(0, packed.size() - 6)), "the compressed file ends too early");
    std::string damaged = packed;
    damaged[damaged.size() / 2] ^= 0x55;
    EXPECT_TRUE(error_of(damaged).starts_with("the compressed file is damaged (")) << error_of(damaged);
}

TEST(Import, EntitiesThatMultiplyAreStopped)
{
    std::string xml = "<!DOCTYPE d [<!ENTITY a \"" + std::string(10000, 'x') + "\">";
    for (char c = 'b'; c < 'j'; c++) {
        xml += std::string("<!ENTITY ") + c + " \"";
        for (int i = 0; i < 10; i++)
            xml += std::string("&") + char(c - 1) + ";";
        xml += "\">";
    }
    xml += R"(]><d:document xmlns:d="urn:broadband-forum-org:cwmp:datamodel-1-0"><model name="&i;"/></d:document>)";
    EXPECT_TRUE(contains(error_of(xml), "amplification")) << error_of(xml);
}

TEST(Import, DeepNestingIsNoProblem)
{
    std::string deep;
    for (int i = 0; i < 100000; i++)
        deep += "<b>";
    std::string up;
    for (int i = 0; i < 100000; i++)
        up += "</b>";
    EXPECT_TRUE(import_text(with_object("<description>" + deep + up + "</description>")).model);
    std::string path = "Device.";
    std::string objects;
    for (int i = 0; i < 3000; i++) {
        path += "A.";
        objects += "<object name=\"" + path + "\"/>";
    }
    imported result = import_text(document("", objects));
    EXPECT_TRUE(result.model) << result.error;
    EXPECT_TRUE(contains(result.warnings, "is nested too deep; left out\n")) << result.warnings.substr(0, 1000);
}

// --- the program's side ---

TEST(Import, AFailureWritesNothing)
{
    directory temporary;
    std::string good = temporary.file("good.xml", with_syntax("<string/>"));
    std::string bad = temporary.file("bad.xml", with_syntax("<dataType ref=\"Nobody\">"));
    std::string output = temporary.file("out.json", "what was there");
    testing::internal::CaptureStderr();
    EXPECT_NE(import_run(bad.c_str(), "", output), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "veld: " + bad + ": line 3: mismatched tag\n");
    EXPECT_EQ(read_file(output), "what was there");
    testing::internal::CaptureStdout();
    EXPECT_NE(import_run(bad.c_str(), "", ""), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStderr();
    EXPECT_EQ(import_run(good.c_str(), "", output), 0);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "veld: imported 2 objects (0 of them tables), 1 parameters, 0 commands with 0 input and 0 output arguments\n");
    EXPECT_TRUE(read_file(output).starts_with("{\n \"format\": 1,\n")) << read_file(output);
    size_t files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(temporary.path))
        files += entry.exists() ? 1 : 0;
    EXPECT_EQ(files, 3U) << "a temporary file is left";
}

TEST(Import, FilesThatCannotBeReadOrWrittenAreNamed)
{
    directory temporary;
    std::string good = temporary.file("good.xml", with_syntax("<string/>"));
    auto said = [&](const std::string &from, const std::string &to) {
        testing::internal::CaptureStderr();
        EXPECT_NE(import_run(from.c_str(), "", to), 0);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(said(temporary.path + "/none.xml", "/dev/null"),
              "veld: " + temporary.path + "/none.xml: No such file or directory\n");
    EXPECT_EQ(said(temporary.path, "/dev/null"), "veld: " + temporary.path + ": Is a directory\n");
    EXPECT_EQ(said(good, temporary.path + "/no/out.json"),
              "veld: " + temporary.path + "/no/out.json: No such file or directory\n");
    EXPECT_EQ(said(good, "/dev/full"), "veld: /dev/full: No space left on device\n");
}

TEST(Import, TheStandardsOwnModelComesOutWhole)
{
    const char *given = getenv("TR181_XML");
    std::string file = given != nullptr ? given : "";
    for (const char *place : {"/../shared/data", "/../../shared/data"})
        if (std::string gz = std::string(KEST_SOURCE_DIR) + place + "/tr-181-2-19-1-usp-full.xml.gz";
            file.empty() && access(gz.c_str(), R_OK) == 0)
            file = gz;
    if (file.empty())
        GTEST_SKIP() << "the data model is not here (set TR181_XML)";
    imported result;
    result.model = import_model(file.c_str(), "", &result.counts, &result.said, &result.error);
    ASSERT_TRUE(result.model) << result.error;
    EXPECT_EQ(result.said.lines(), std::vector<std::string>{});
    EXPECT_EQ(result.counts.objects, 809U);
    EXPECT_EQ(result.counts.tables, 417U);
    EXPECT_EQ(result.counts.parameters, 6581U);
    EXPECT_EQ(result.counts.commands, 178U);
    EXPECT_EQ(result.counts.inputs, 425U);
    EXPECT_EQ(result.counts.outputs, 505U);
    EXPECT_EQ(
        result.node("Device/IP/Interface/{i}/IPv4Address/{i}/IPAddress", false),
        R"({"type":"string","default":"","maxLength":15,)"
        R"("regex":"^(?:|((25[0-5]|2[0-4][0-9]|[01]?[0-9]?[0-9])\\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9]?[0-9]))$","access":"readWrite"})");
    EXPECT_EQ(result.node("Device/Firewall/Chain/{i}/Rule/{i}/IPVersion", false),
              R"({"type":"int","default":-1,"enum":[-1,4,6],"access":"readWrite"})");
}

// --- patterns ---

TEST(ImportPattern, WhatMeansSomethingElseIsTranslated)
{
    EXPECT_EQ(translate_pattern("a^b$c"), "a\\^b\\$c");
    EXPECT_EQ(translate_pattern("[^a$]"), "[^a$]");
    EXPECT_EQ(translate_pattern("\\d{4}|[\\d.-]+"), "\\d{4}|[\\d.-]+");
    EXPECT_EQ(translate_pattern("\\p{L}+"), "\\p{L}+");
    for (const char *unknown :
         {"\\i", "[\\c]", "\\p{IsBasicLatin}", "[a-z-[aeiou]]", "(?=a)", "(*ACCEPT)", "\\", "\\Qa", "[a"})
        EXPECT_EQ(translate_pattern(unknown), std::nullopt) << unknown;
}
