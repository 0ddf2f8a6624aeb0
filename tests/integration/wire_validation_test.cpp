/*
 * The edge check of inbound commands on both channels: each refusal rule
 * is driven over MQTT and over the LAN, and every refused document must
 * leave the application untouched, log one error line, and be answered
 * with a refusal (protocol / frame type 64) that names the command's "sn",
 * the device, the DP and the reason.
 *
 * "Untouched" is checked without waiting for silence: after the refused
 * documents a valid command goes the same way (the channel's thread, then
 * the dispatch queue, both in order), and once it has reached the
 * application nothing else may have.
 */
#include <cjson/cJSON.h>

#include <algorithm>

#include <ctime>

#include "gateway/edge/wire_validate.h"
#include "gateway/gateway_tunables.h"
#include "support/channel_fixture.h"
#include "support/stderr_capture.h"

namespace it {
namespace {

/* sub01's DPs: 1 bool, 2 value 0..100000, and one DP of every other kind. */
const char SUB01_EXTRA[] = "{\"id\":3,\"prop\":\"value\",\"min\":10,\"max\":100,\"step\":5},"
                           "{\"id\":4,\"prop\":\"str\",\"max_len\":4},"
                           "{\"id\":5,\"prop\":\"enum\",\"range\":[\"low\",\"high\"]},"
                           "{\"id\":6,\"prop\":\"bitmap\",\"max_len\":4},"
                           "{\"id\":7,\"type\":\"raw\"},"
                           "{\"id\":8,\"mode\":\"ro\",\"prop\":\"bool\"},"
                           "{\"id\":9,\"type\":\"file\"}";

/* One refused document and what must be said about it. */
struct Refused {
    const char *kind; /* dp, group, scene, query */
    std::string doc;  /* an object gets "sn":<its index> put in front */
    const char *code;
    std::string reason;
    std::string dev; /* the answer's "devId" as JSON, "" none */
    std::string dp;  /* the answer's "dp", "" none */
};

struct Rule {
    const char *name;
    std::vector<Refused> docs;
};

const char *log_label(const std::string &kind)
{
    return kind == "dp" ? "dp command" : kind == "group" ? "group command" : kind == "scene" ? "scene command" : "query";
}

std::string quoted(const std::string &text)
{
    cJSON *s = cJSON_CreateString(text.c_str());
    char *printed = cJSON_PrintUnformatted(s);
    std::string out = printed;
    cJSON_free(printed);
    cJSON_Delete(s);
    return out;
}

bool is_object_text(const std::string &doc) { return !doc.empty() && doc[0] == '{'; }

std::string with_sn(const std::string &doc, size_t sn)
{
    return is_object_text(doc) ? "{\"sn\":" + std::to_string(sn) + (doc.size() > 2 ? "," : "") + doc.substr(1) : doc;
}

/* The refusal's "data" exactly as docs/wire-protocol.md gives it. */
std::string expected_answer(const Refused &r, size_t sn)
{
    std::string out = std::string("{\"cmd\":\"") + r.kind + "\"";
    if (is_object_text(r.doc)) {
        out += ",\"sn\":" + std::to_string(sn);
    }
    if (!r.dev.empty()) {
        out += ",\"devId\":" + r.dev;
    }
    if (!r.dp.empty()) {
        out += ",\"dp\":" + quoted(r.dp);
    }
    return out + ",\"code\":\"" + r.code + "\",\"reason\":" + quoted(r.reason) + "}";
}

std::string expected_log(const Refused &r)
{
    return std::string(log_label(r.kind)) + " dropped: " + r.reason + " [" + r.code + "]";
}

Refused dp_value(const std::string &key, const std::string &value, const char *code, const std::string &reason)
{
    return {"dp", "{\"devId\":\"sub01\",\"dps\":{\"" + key + "\":" + value + "}}", code, reason, "\"sub01\"", key};
}

std::string ids(int n)
{
    std::string out = "[";
    for (int i = 0; i < n; ++i) {
        out += std::string(i > 0 ? "," : "") + "\"sub01\"";
    }
    return out + "]";
}

const std::vector<Rule> &rules()
{
    static const std::vector<Rule> all = {
        {"TIsTheNumberOfSecondsAtIssue",
         {{"dp", "{\"devId\":\"sub01\",\"dps\":{\"1\":true},\"t\":\"now\"}", "bad_shape",
           "t is a string, expected the POSIX seconds at which the command was issued", "", ""}}},
        {"DeviceIdNotAString",
         {{"dp", "{\"devId\":123,\"dps\":{\"1\":true}}", "bad_device_id", "\"devId\" must be a string, got 123", "123", ""},
          {"dp", "{\"cid\":true,\"dps\":{\"1\":true}}", "bad_device_id", "\"cid\" must be a string, got true", "true", ""},
          {"query", "{\"cids\":[5],\"dpids\":[1]}", "bad_device_id", "every \"cids\" entry must be a string, got 5", "5", ""}}},
        {"UnknownDevice",
         {{"dp", "{\"devId\":\"nosuch\",\"dps\":{\"1\":true}}", "unknown_device", "unknown device \"nosuch\"", "\"nosuch\"", ""},
          {"dp", "{\"cid\":\"ghost\",\"dps\":{\"1\":true}}", "unknown_device", "unknown device \"ghost\"", "\"ghost\"", ""},
          {"query", "{\"cids\":[\"sub01\",\"nosuch\"],\"dpids\":[1]}", "unknown_device", "unknown device \"nosuch\"",
           "\"nosuch\"", ""}}},
        {"DpKeyNotACanonicalDpNumberOfTheDevice",
         {dp_value("1.5", "true", "bad_dp_key", "DP key \"1.5\" of sub01 is no DP number (1..255 in decimal, no sign, space or leading zero)"),
          dp_value("1abc", "true", "bad_dp_key", "DP key \"1abc\" of sub01 is no DP number (1..255 in decimal, no sign, space or leading zero)"),
          dp_value(" 1", "true", "bad_dp_key", "DP key \" 1\" of sub01 is no DP number (1..255 in decimal, no sign, space or leading zero)"),
          dp_value("01", "true", "bad_dp_key", "DP key \"01\" of sub01 is no DP number (1..255 in decimal, no sign, space or leading zero)"),
          dp_value("256", "true", "bad_dp_key", "DP key \"256\" of sub01 is no DP number (1..255 in decimal, no sign, space or leading zero)"),
          dp_value("42", "true", "unknown_dp", "device sub01 has no DP 42"),
          {"dp", "{\"devId\":\"sub01\",\"dps\":{\"1\":true,\"1\":false}}", "duplicate_dp", "DP 1 of sub01 given twice",
           "\"sub01\"", "1"},
          {"query", "{\"cids\":[\"sub01\"],\"dpids\":[42]}", "unknown_dp", "device sub01 has no DP 42", "\"sub01\"", "42"}}},
        {"BoolTakesOnlyTrueOrFalse",
         {dp_value("1", "\"true\"", "bad_type", "DP 1 of sub01: expected true or false, got a string"),
          dp_value("1", "1", "bad_type", "DP 1 of sub01: expected true or false, got a number"),
          dp_value("1", "null", "bad_type", "DP 1 of sub01: expected true or false, got null")}},
        {"ValueTakesAnIntegerWithinTheRangeAndOnTheStep",
         {dp_value("2", "\"5\"", "bad_type", "DP 2 of sub01: expected an integer, got a string"),
          dp_value("3", "12.5", "bad_type", "DP 3 of sub01: expected an integer, got 12.5"),
          dp_value("3", "105", "out_of_range", "DP 3 of sub01: 105 outside 10..100"),
          dp_value("3", "5", "out_of_range", "DP 3 of sub01: 5 outside 10..100"),
          dp_value("3", "12", "off_step", "DP 3 of sub01: 12 not on the step 5 from 10")}},
        {"EnumTakesAKnownName",
         {dp_value("5", "\"medium\"", "unknown_enum", "DP 5 of sub01: no value named \"medium\""),
          dp_value("5", "1", "bad_type", "DP 5 of sub01: expected the name of a value, got a number")}},
        {"StringTakesTextWithinTheMaximumLength",
         {dp_value("4", "5", "bad_type", "DP 4 of sub01: expected a string, got a number"),
          dp_value("4", "\"abcde\"", "too_long", "DP 4 of sub01: 5 bytes, at most 4")}},
        {"BitmapTakesAnIntegerWithinItsBits",
         {dp_value("6", "16", "out_of_range", "DP 6 of sub01: 16 outside 0..15"),
          dp_value("6", "true", "bad_type", "DP 6 of sub01: expected an integer, got a boolean")}},
        {"RawTakesBase64",
         {dp_value("7", "\"not base64!\"", "bad_base64", "DP 7 of sub01: not well-formed base64"),
          dp_value("7", "12", "bad_type", "DP 7 of sub01: expected base64 text, got a number")}},
        {"ReadOnlyAndFileDpsAreNotWritable",
         {dp_value("8", "true", "not_writable", "DP 8 of sub01 is read-only"),
          dp_value("9", "\"AAAA\"", "not_writable", "DP 9 of sub01 is a file DP, not commanded here")}},
        {"DpCommandShape",
         {{"dp", "[1,2]", "bad_shape", "not a JSON object or unknown kind", "", ""},
          {"dp", "{\"devId\":\"sub01\"}", "bad_shape", "\"dps\" must be an object of DP numbers to values", "\"sub01\"", ""},
          {"dp", "{\"devId\":\"sub01\",\"ctype\":7,\"dps\":{}}", "bad_shape", "\"ctype\" must be 0, 1, 2 or 3, got 7",
           "\"sub01\"", ""},
          {"dp", "{\"devId\":\"sub01\",\"ctype\":2,\"dps\":{\"1\":true}}", "bad_shape",
           "\"mbid\" must be a string (required with \"ctype\" 2)", "\"sub01\"", ""}}},
        {"GroupCommandTypes",
         {{"group", "{\"action\":\"add\",\"cids\":[\"sub01\"],\"gid\":\"5\"}", "bad_shape",
           "\"action\" must be 0 (add) or 1 (remove), got \"add\"", "", ""},
          {"group", "{\"action\":2,\"cids\":[\"sub01\"],\"gid\":\"5\"}", "bad_shape",
           "\"action\" must be 0 (add) or 1 (remove), got 2", "", ""},
          {"group", "{\"action\":0,\"cids\":\"sub01\",\"gid\":\"5\"}", "bad_shape", "\"cids\" must be an array of device ids", "", ""},
          {"group", "{\"action\":0,\"cids\":[],\"gid\":\"5\"}", "bad_shape", "\"cids\" must list at least one device", "", ""},
          {"group", "{\"action\":0,\"cids\":[\"sub01\",7],\"gid\":\"5\"}", "bad_device_id",
           "every \"cids\" entry must be a string, got 7", "7", ""},
          {"group", "{\"action\":0,\"cids\":[\"sub01\"],\"gid\":5}", "bad_shape", "\"gid\" must be a non-empty string", "", ""},
          {"group", "{\"action\":0,\"cids\":[\"sub01\"],\"gid\":\"123456\"}", "too_long",
           "\"gid\" \"123456\" is longer than 5 characters", "", ""}}},
        {"SceneCommandTypes",
         {{"scene", "{\"action\":0,\"cids\":[\"sub01\"],\"gid\":\"5\"}", "bad_shape", "\"sid\" must be a non-empty string", "", ""},
          {"scene", "{\"action\":0,\"cids\":[\"sub01\"],\"sid\":\"0001\",\"gid\":\"5\"}", "too_long",
           "\"sid\" \"0001\" is longer than 3 characters", "", ""},
          {"scene", "{\"action\":null,\"cids\":[\"sub01\"],\"sid\":\"01\",\"gid\":\"5\"}", "bad_shape",
           "\"action\" must be 0 (add) or 1 (remove), got null", "", ""}}},
        {"MoreIdsThanTheLimitOf256",
         {{"group", "{\"action\":0,\"cids\":" + ids(257) + ",\"gid\":\"5\"}", "too_many_ids",
           "\"cids\" lists 257 devices, at most 256", "", ""},
          {"scene", "{\"action\":0,\"cids\":" + ids(257) + ",\"sid\":\"01\",\"gid\":\"5\"}", "too_many_ids",
           "\"cids\" lists 257 devices, at most 256", "", ""},
          {"query", "{\"cids\":" + ids(257) + ",\"dpids\":[1]}", "too_many_ids", "\"cids\" lists 257 devices, at most 256", "", ""}}},
        {"QueryShape",
         {{"query", "{\"cids\":\"sub01\",\"dpids\":[1]}", "bad_shape",
           "\"dpids\" must be an array and \"cids\" an array or null", "", ""},
          {"query", "{\"cids\":[\"sub01\"]}", "bad_shape", "\"dpids\" must be an array and \"cids\" an array or null", "", ""},
          {"query", "{\"dpids\":[\"one\"]}", "bad_dp_key", "every \"dpids\" entry must be a number from 1 to 255, got \"one\"",
           "", "one"},
          {"query", "{\"dpids\":[0]}", "bad_dp_key", "every \"dpids\" entry must be a number from 1 to 255, got 0", "", "0"},
          {"query", "{\"cids\":[],\"dpids\":[1]}", "bad_shape",
           "\"cids\" must list at least one device (or be null for the gateway)", "", ""}}},
    };
    return all;
}

enum class Channel { Mqtt, Lan };

class WireValidation : public ChannelTest, public ::testing::WithParamInterface<std::tuple<size_t, Channel>> {
protected:
    void start_channel(Channel channel)
    {
        const bool mqtt = channel == Channel::Mqtt;
        add_device_dps("sub01", SUB01_EXTRA);
        start({{"sub01", 1, 1}, {"sub02", 1, 1}}, {}, mqtt);
        if (!mqtt) {
            start_lan_client();
        }
    }

    void send(Channel channel, const std::string &kind, const std::string &doc)
    {
        if (channel == Channel::Mqtt) {
            ASSERT_TRUE(cloud_.publish(topic(("cmd/" + kind).c_str()), doc));
        } else {
            ASSERT_TRUE(lan_.send_line("{\"cmd\":\"" + kind + "\",\"data\":" + doc + "}"));
        }
    }

    /* The refusal answers, in order, until count came or 10 s passed. */
    std::vector<std::string> refusals(Channel channel, size_t count)
    {
        std::vector<std::string> out;
        if (channel == Channel::Mqtt) {
            cloud_.wait_until([&](const std::vector<Received> &all) { return collect(all, &out) >= count; }, seconds(10));
            return out;
        }
        std::string line;
        while (out.size() < count && lan_.read_line(&line, seconds(10))) {
            const std::string prefix = "{\"type\":64,\"flag\":1,\"data\":";
            if (line.rfind(prefix, 0) == 0) {
                out.push_back(line.substr(prefix.size(), line.size() - prefix.size() - 1));
            }
        }
        return out;
    }

    static size_t collect(const std::vector<Received> &all, std::vector<std::string> *out)
    {
        out->clear();
        for (const Received &one : all) {
            const std::string data = one.topic == topic("up") ? uplink_data(one.payload, WIRE_PRO_CMD_REFUSED) : "";
            if (!data.empty()) {
                out->push_back(data);
            }
        }
        return out->size();
    }

    /* Send a valid command after the refused ones; once it arrives, it must be the only thing that did. */
    void expect_only_the_valid_command_arrives(Channel channel)
    {
        send(channel, "dp", "{\"devId\":\"sub02\",\"dps\":{\"2\":7}}");
        ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
        const std::vector<ObjCmd> cmds = obj_cmds();
        ASSERT_EQ(1u, cmds.size());
        EXPECT_EQ("sub02", cmds[0].cid);
        EXPECT_EQ(std::vector<std::string>{}, app_calls());
    }
};

/* The one log line of a refusal: at error level, from the edge check. */
bool logged_as_error(const StderrCapture &log, const std::string &message)
{
    if (!log.wait_for(message, seconds(10))) {
        return false;
    }
    const std::string text = log.text();
    const size_t at = text.find(message);
    const size_t begin = text.rfind('\n', at) == std::string::npos ? 0 : text.rfind('\n', at) + 1;
    const std::string line = text.substr(begin, text.find('\n', at) - begin);
    return line.find(" ERROR ") != std::string::npos && line.find("admit_command: " + message) != std::string::npos;
}

TEST_P(WireValidation, EveryRefusedDocumentIsLoggedAnsweredAndKeptFromTheApplication)
{
    const Rule &rule = rules()[std::get<0>(GetParam())];
    const Channel channel = std::get<1>(GetParam());
    StderrCapture log;
    start_channel(channel);

    for (size_t i = 0; i < rule.docs.size(); ++i) {
        send(channel, rule.docs[i].kind, with_sn(rule.docs[i].doc, i + 1));
    }
    const std::vector<std::string> answers = refusals(channel, rule.docs.size());
    ASSERT_EQ(rule.docs.size(), answers.size());
    for (size_t i = 0; i < rule.docs.size(); ++i) {
        EXPECT_EQ(expected_answer(rule.docs[i], i + 1), answers[i]);
        EXPECT_TRUE(logged_as_error(log, expected_log(rule.docs[i]))) << expected_log(rule.docs[i]);
    }
    expect_only_the_valid_command_arrives(channel);
}

std::string case_name(const ::testing::TestParamInfo<std::tuple<size_t, Channel>> &info)
{
    return std::string(rules()[std::get<0>(info.param)].name) + (std::get<1>(info.param) == Channel::Mqtt ? "OverMqtt" : "OverLan");
}

INSTANTIATE_TEST_SUITE_P(Rules, WireValidation,
                         ::testing::Combine(::testing::Range<size_t>(0, rules().size()), ::testing::Values(Channel::Mqtt, Channel::Lan)),
                         case_name);

class WireEdge : public WireValidation {};

TEST_F(WireEdge, ValuesThatFitEveryDpKindReachTheApplicationUnchanged)
{
    start_channel(Channel::Mqtt);

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"),
                               "{\"devId\":\"sub01\",\"dps\":{\"1\":false,\"2\":100000,\"3\":100,\"4\":\"abcd\","
                               "\"5\":\"high\",\"6\":15,\"7\":\"AQID\"}}"));

    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    ASSERT_TRUE(wait_app_calls(1, seconds(10)));
    EXPECT_EQ(std::vector<std::string>{"raw sub01 7 3"}, app_calls());
    const ObjCmd cmd = obj_cmds()[0];
    ASSERT_EQ(6u, cmd.dps.size());
    EXPECT_EQ(100000, cmd.dps[1].number);
    EXPECT_EQ(100, cmd.dps[2].number);
    EXPECT_EQ("abcd", cmd.dps[3].text);
    EXPECT_EQ(1, cmd.dps[4].number);
    EXPECT_EQ(15, cmd.dps[5].number);
}

TEST_F(WireEdge, GroupAndQueryWithinTheLimitsPass)
{
    start_channel(Channel::Mqtt);

    ASSERT_TRUE(cloud_.publish(topic("cmd/group"), "{\"action\":0,\"cids\":" + ids(256) + ",\"gid\":\"12345\"}"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":null,\"dpids\":[]}"));

    ASSERT_TRUE(wait_app_calls(257, seconds(20)));
    const std::vector<std::string> calls = app_calls();
    EXPECT_EQ(256, std::count(calls.begin(), calls.end(), "group 0 sub01 12345"));
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "query gwit0001"));
}

TEST_F(WireEdge, ACommandOlderThanTheMaximumAgeIsRefusedAsExpiredEvenWithTheChecksOff)
{
    StderrCapture log;
    wire_set_command_checks(FALSE);
    wire_set_command_max_age(60);
    start_channel(Channel::Mqtt);
    const long long now = static_cast<long long>(std::time(nullptr));

    send(Channel::Mqtt, "dp", "{\"sn\":5,\"devId\":\"sub01\",\"dps\":{\"1\":true},\"t\":" + std::to_string(now - 600) + "}");
    send(Channel::Mqtt, "dp", "{\"sn\":6,\"devId\":\"sub01\",\"dps\":{\"2\":9},\"t\":" + std::to_string(now + 30) + "}");
    const std::vector<std::string> answers = refusals(Channel::Mqtt, 1);
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    wire_set_command_checks(TRUE);
    wire_set_command_max_age(SF_COMMAND_MAX_AGE_S);

    ASSERT_EQ(1u, answers.size());
    // The age is read from the clock: 600 s, or 601 when a second ticked in between.
    const std::string head = "{\"cmd\":\"dp\",\"sn\":5,\"code\":\"expired\",\"reason\":\"issued 60";
    EXPECT_EQ(head, answers[0].substr(0, head.size()));
    EXPECT_EQ(" s ago, more than the 60 s a command may be old\"}", answers[0].substr(head.size() + 1));
    EXPECT_TRUE(logged_as_error(log, "dp command dropped: issued 60")) << log.text();
    EXPECT_NE(std::string::npos, log.text().find(" s ago, more than the 60 s a command may be old [expired]\n"));
    EXPECT_EQ(1u, wire_expired_refusals());
    ASSERT_EQ(1u, obj_cmds().size()) << "a t ahead of the gateway's clock is no reason to refuse";
    EXPECT_EQ(2, obj_cmds()[0].dps[0].dpid);
}

TEST_F(WireEdge, WithTheChecksOffTheModuleDecodesLenientlyAsBefore)
{
    StderrCapture log;
    wire_set_command_checks(FALSE);
    start_channel(Channel::Mqtt);

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"devId\":\"sub01\",\"dps\":{\"1\":\"true\"}}"));

    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    wire_set_command_checks(TRUE);
    ASSERT_EQ(1u, obj_cmds()[0].dps.size());
    EXPECT_EQ(0, obj_cmds()[0].dps[0].number); /* the module's lenient reading: not true, so false */
    EXPECT_EQ(std::string::npos, log.text().find("admit_command")) << log.text();
}

} // namespace
} // namespace it
