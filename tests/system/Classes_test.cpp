#include "support/TempDir.h"
#include "system/Actor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

namespace {

using Testing::Actor;

/** An object whose class its own actor and another one describe differently; see actor/Classes.cpp. */
class Classes : public testing::Test {
protected:
    Classes() {
        server.ask("orb 1", "orb ");
        client.ask("orb 1", "orb ");
        EXPECT_TRUE(server.askUntil("events members", "events ", "2"));
        EXPECT_TRUE(client.askUntil("events members", "events ", "2"));
        ask(server, "make g");
    }
    static std::string ask(Actor &actor, const std::string &command) { return actor.ask("class " + command, "class "); }
    static void define(Actor &actor, const std::string &kind) {
        ask(actor, "define device");
        EXPECT_EQ("ok", ask(actor, "define " + kind));
    }
    /** How often the actor has logged the line. */
    static unsigned logged(const Actor &actor, const std::string &levelAndSource, const std::string &text) {
        std::istringstream log(actor.log());
        unsigned count = 0;
        for (std::string line; std::getline(log, line);) {
            const std::size_t end = line.size() - std::min(line.size(), text.size() + 2);
            count += line.find(" " + levelAndSource + " ") < end && line.substr(end) == "] " + text ? 1 : 0;
        }
        return count;
    }
    static unsigned unknown(const Actor &actor, const std::string &id) {
        return logged(actor, "6 REFLECT_InterfaceRepository",
                      "InterfaceRepository::findInterface(0x" + id + ") Meta-information CANNOT BE FOUND");
    }

    const Testing::TempDir directory_;
    const Testing::Unit unit_{directory_.path() + "/unit", {"REFLECTORB_LOG_LEVEL=6"}};
    Actor server{unit_, 1};
    Actor client{unit_, 2};
};

constexpr char kGauge[] = "9D000002";
constexpr char kDevice[] = "6D000001";

TEST_F(Classes, OfAnObjectAreThoseThatTheAskingActorKnows) {
    EXPECT_EQ("-", ask(client, "of g"));
    EXPECT_EQ(1U, unknown(client, kGauge));
    EXPECT_EQ(1U, unknown(client, kDevice));
    EXPECT_EQ(1U, logged(client, "4 REFLECT_objectStub",
                         "TreflectObjectStub::meta() - did not find any meta information, returning NULL"));
    EXPECT_EQ("4 ", ask(client, "read g model"));
    EXPECT_EQ("5", ask(client, "call g calibrate"));

    ask(client, "define device");
    EXPECT_EQ("Device", ask(client, "of g"));
    EXPECT_EQ("0 model-g", ask(client, "read g model"));
    EXPECT_EQ("4 ", ask(client, "read g unit"));

    define(client, "gauge");
    EXPECT_EQ("Gauge", ask(client, "of g"));
    EXPECT_EQ("0 unit-g", ask(client, "read g unit"));
    EXPECT_EQ("0", ask(client, "call g calibrate"));
    EXPECT_EQ("9D000002 15", ask(server, "asked g"));

    EXPECT_EQ("-", ask(server, "of g")) << "where it lives nobody has described it";
    EXPECT_EQ("4 ", ask(server, "read g model"));
    ask(server, "undefine gauge");
    EXPECT_EQ("Gauge", ask(client, "of g"));
}

TEST_F(Classes, WithTheSameNumberAreThatWhichCameFirst) {
    define(server, "gauge");
    define(client, "gauge");
    ask(client, "define scale");
    EXPECT_EQ("Gauge", ask(client, "of g"));
    EXPECT_EQ("0 reading-g", ask(client, "read g reading"));
    EXPECT_EQ(0U, unknown(client, kGauge));

    ask(client, "undefine scale"); // and with it the entry of both
    EXPECT_EQ("Device", ask(client, "of g"));
    EXPECT_EQ(1U, unknown(client, kGauge));
    EXPECT_EQ("0 model-g", ask(client, "read g model"));
    EXPECT_EQ("4 ", ask(client, "read g reading"));
    EXPECT_EQ("Gauge", ask(server, "of g"));
    EXPECT_EQ("0 reading-g", ask(server, "read g reading"));

    ask(client, "undefine gauge");
    ask(client, "define scale");
    EXPECT_EQ("Scale", ask(client, "of g"));
    EXPECT_EQ("0 reading-g", ask(client, "read g weight")) << "its getter is that of the reading";
    EXPECT_EQ("4 ", ask(client, "read g reading"));
    ask(client, "define gauge");
    EXPECT_EQ("Scale", ask(client, "of g")) << "which is the first now";
    EXPECT_EQ(0U, unknown(server, kGauge));
}

TEST_F(Classes, AreAskedToBeCompleteAtEachHit) {
    define(server, "gauge");
    define(client, "gauge");
    EXPECT_EQ("0", ask(client, "completions gauge"));
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ("Gauge", ask(client, "of g"));
        EXPECT_EQ(std::to_string(2 * i - 1), ask(client, "completions gauge"));
        EXPECT_EQ("0 unit-g", ask(client, "read g unit"));
        EXPECT_EQ(std::to_string(2 * i), ask(client, "completions gauge"));
    }
    EXPECT_EQ("1", ask(client, "completions device")) << "by the other one; the search ends with that";
    EXPECT_EQ("0", ask(server, "completions gauge")) << "only numbers were asked for there";
    EXPECT_EQ("Gauge", ask(server, "of g"));
    EXPECT_EQ("1", ask(server, "completions gauge"));
}

TEST_F(Classes, AreToldToOthersInAscendingOrder) {
    const std::string id = server.ask("orb 1", "orb ").substr(9);
    define(server, "gauge");
    define(client, "gauge");
    EXPECT_EQ("", ask(client, "learned " + id));
    EXPECT_EQ("1 sent 1", ask(client, "watch"));
    const std::string all = "0DD0B1E5 5A3C10F1 6D000001 7A11C0E1 9D000002";
    EXPECT_EQ(all, ask(client, "learned " + id));
    EXPECT_EQ(all, ask(server, "ids"));
    EXPECT_EQ("1 sent 2", ask(client, "unwatch"));
}

TEST_F(Classes, WithoutTablesAreEmptyInThatActorOnly) {
    for (const char *kind : {"nooperations", "noattributes"}) {
        define(server, "gauge");
        define(client, kind);
        EXPECT_EQ("Gauge", ask(client, "of g"));
        EXPECT_EQ("4 ", ask(client, "read g unit"));
        EXPECT_EQ("5", ask(client, "call g calibrate"));
        EXPECT_EQ("- Device.model", ask(client, "attributes g"));
        EXPECT_EQ("- Device.getmodel", ask(client, "operations g"));
        EXPECT_EQ("0 unit-g", ask(server, "read g unit"));
        ask(client, std::string("undefine ") + kind);
    }
    const std::string line = "Invalid meta information for meta object \"Gauge\"";
    EXPECT_EQ(2U, logged(client, "3 REFLECT_metaObject", line)) << "once each";
    EXPECT_EQ(0U, logged(server, "3 REFLECT_metaObject", line));

    ask(client, "define bare");
    EXPECT_EQ("- Device.model", ask(client, "attributes g"));
    EXPECT_EQ("0", ask(client, "call g calibrate"));
    EXPECT_EQ("9D000002 15", ask(server, "asked g"));
    EXPECT_EQ(2U, logged(client, "3 REFLECT_metaObject", line));
}

TEST_F(Classes, EndBeforeAnAttributeWithoutGetterInThatActorOnly) {
    define(server, "cut");
    define(client, "gauge");
    ask(client, "make h");
    for (const char *name : {"g", "h"}) {
        const std::string object = name;
        EXPECT_EQ("- Gauge.model Gauge.unit Device.model", ask(server, "attributes " + object));
        EXPECT_EQ("0 unit-" + object, ask(server, "read " + object + " unit"));
        EXPECT_EQ("0 model-" + object, ask(server, "read " + object + " model"));
        EXPECT_EQ("4 ", ask(server, "read " + object + " range"));
        EXPECT_EQ("4 ", ask(server, "read " + object + " reading")) << "which came behind it";
        EXPECT_EQ("0 reading-" + object, ask(client, "read " + object + " reading"));
    }
    const std::string line = "no get operation registered for attribute \"range\" of class \"Gauge\"";
    EXPECT_EQ(1U, logged(server, "3 REFLECT_metaObject", line));
    EXPECT_EQ(0U, logged(client, "3 REFLECT_metaObject", line));
}

TEST_F(Classes, MayHaveGettersOfAParentAndNoSetters) {
    define(server, "gauge");
    define(client, "gauge");
    for (Actor *caller : {&client, &server}) {
        const std::string sent = caller == &client ? "1" : "0";
        EXPECT_EQ("0 unit-g", ask(*caller, "read g unit"));
        EXPECT_EQ("9D000002 11", ask(server, "asked g"));
        EXPECT_EQ("0 model-g", ask(*caller, "read g model"));
        EXPECT_EQ("9D000002 1", ask(server, "asked g")) << "of the class that lists it";
        EXPECT_EQ("5 none 0", ask(*caller, "set g reading"));
        EXPECT_EQ("5 none 0", ask(*caller, "set g model"));
        EXPECT_EQ("9D000002 1", ask(server, "asked g")) << "nobody was asked";
        EXPECT_EQ("0 there " + sent, ask(*caller, "set g unit"));
        EXPECT_EQ("9D000002 12", ask(server, "asked g"));
    }
}

TEST_F(Classes, ReportMissingMembersWhereTheyAreSearchedFor) {
    define(server, "gauge");
    define(client, "gauge");
    EXPECT_EQ("4 ", ask(client, "read g nothing"));
    const std::string attribute = "TreflectMetaObject::metaAttribute(nothing) NOT found, returning 0";
    EXPECT_EQ(2U, logged(client, "4 REFLECT_metaObject", attribute)) << "by both classes";
    EXPECT_EQ(1U, logged(client, "3 REFLECT_object", "attribute \"nothing\" not found"));

    EXPECT_EQ("0", ask(client, "has g nothing"));
    EXPECT_EQ("1", ask(client, "has g getmodel"));
    const std::string operation = "TreflectMetaObject(Gauge)::metaOperation(nothing) NOT found, returning 0";
    EXPECT_EQ(0U, logged(client, "4 REFLECT_metaObject", operation));
    EXPECT_EQ("5", ask(client, "call g nothing"));
    EXPECT_EQ(1U, logged(client, "4 REFLECT_metaObject", operation));
    EXPECT_EQ(1U, logged(client, "6 REFLECT_object", "[Wrn] operation \"nothing\" not found"));

    EXPECT_EQ("0 unit-g", ask(client, "read g unit"));
    EXPECT_EQ("0", ask(client, "call g getmodel"));
    EXPECT_EQ(std::string::npos, client.log().find("::metaOperation(getmodel) NOT found"));
    EXPECT_EQ(std::string::npos, client.log().find("::metaAttribute(unit) NOT found"));
    EXPECT_EQ(std::string::npos, server.log().find("NOT found"));
}

TEST_F(Classes, ListTheirMembersBeforeThoseOfTheParent) {
    define(client, "gauge");
    EXPECT_EQ("- Gauge.model Gauge.reading Gauge.unit Device.model", ask(client, "attributes g"));
    EXPECT_EQ("- Gauge.calibrate Gauge.getbackup Gauge.getreading Gauge.getunit Gauge.setunit Device.getmodel",
              ask(client, "operations g"));
}

TEST_F(Classes, MayGetOtherAttributesInOneActor) {
    define(server, "gauge");
    define(client, "gauge");
    EXPECT_EQ("ok", ask(client, "keep g reading"));
    EXPECT_EQ("0 reading-g", ask(client, "kept"));
    EXPECT_EQ("ok", ask(client, "replace gauge reading getbackup"));
    EXPECT_EQ("0 backup-g", ask(client, "read g reading"));
    EXPECT_EQ("9D000002 14", ask(server, "asked g"));
    EXPECT_EQ("0 reading-g", ask(client, "kept")) << "a handle of the old one, which is not deleted";
    EXPECT_EQ("0 reading-g", ask(server, "read g reading"));
    EXPECT_EQ("- Gauge.model Gauge.reading Gauge.unit Device.model", ask(client, "attributes g"));
}

TEST_F(Classes, AreNotObservedByNobody) {
    define(server, "gauge");
    define(client, "gauge");
    EXPECT_EQ("0 0 0 0 sent 0", ask(client, "watchnobody"));
    EXPECT_EQ("1 sent 1", ask(client, "watch"));
    EXPECT_EQ("0 0 0 0 sent 0", ask(client, "watchnobody"));
    EXPECT_EQ("1 sent 2", ask(client, "unwatch")) << "it was still there";
}

TEST_F(Classes, GiveErrorHandlesThatAskNobody) {
    define(server, "gauge");
    define(client, "gauge");
    for (Actor *caller : {&client, &server}) {
        EXPECT_EQ("4 4 4 5 5 5 5 0 0 0 sent 0", ask(*caller, "errors g"));
    }
    EXPECT_EQ("00000000 0", ask(server, "asked g"));
    EXPECT_EQ("0 unit-g", ask(client, "read g unit"));
    server.kill();
    EXPECT_TRUE(client.askUntil("events members", "events ", "1"));
    EXPECT_EQ("4 4 4 5 5 5 5 0 0 0 sent 0", ask(client, "errors g"));
}

} // namespace
