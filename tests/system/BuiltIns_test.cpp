#include "system/StubsTest.h"

namespace {

/** The methods that every object has, between two actors. */
class BuiltIns : public Testing::StubsTest {
protected:
    BuiltIns() {
        puppet("make root");
        puppet("make port root");
        puppet("classes port 1 2");
        for (const Member *caller : {&owner, &user}) {
            EXPECT_EQ("1", stub(*caller, "name r root"));
            EXPECT_EQ("1", stub(*caller, "name p port"));
        }
    }
    /** What a call finds and brings back; one within the actor has no head. */
    std::string answered(const Member &caller, const std::string &exception, const std::string &value) const {
        return std::string(&caller == &user ? "head 16" : "head 0") + " sent 1 exception " + exception + " value " +
               value + " left 0";
    }
    std::string answered(const Member &caller, const std::string &value) const { return answered(caller, "0", value); }
};

TEST_F(BuiltIns, AreAnsweredWhateverTheClassCode) {
    for (const Member *caller : {&owner, &user}) {
        for (const std::string cc : {"0", "7", "51", "FFFFFFFF"}) {
            SCOPED_TRACE(cc);
            EXPECT_EQ(answered(*caller, "/root/port"), stub(*caller, "call p " + cc + " 1100 text"));
            EXPECT_EQ(answered(*caller, "port"), stub(*caller, "call p " + cc + " 1101 text"));
            EXPECT_EQ(answered(*caller, "root"), stub(*caller, "call p " + cc + " 1103 object"));
            EXPECT_EQ(answered(*caller, "port"), stub(*caller, "call r " + cc + " 1104 object t:port"));
            EXPECT_EQ(answered(*caller, "-"), stub(*caller, "call r " + cc + " 1104 object t:other"));
            EXPECT_EQ(answered(*caller, ""), stub(*caller, "call p " + cc + " 1106 nothing t:up h:r"));
            EXPECT_EQ(answered(*caller, ""), stub(*caller, "call p " + cc + " 1106 nothing t:self h:p"));
            EXPECT_EQ(answered(*caller, "port root"), stub(*caller, "call p " + cc + " 1105 objects"));
            EXPECT_EQ(answered(*caller, ""), stub(*caller, "call p " + cc + " 1107 nothing t:self"));
            EXPECT_EQ(answered(*caller, "root"), stub(*caller, "call p " + cc + " 1105 objects"));
            EXPECT_EQ(answered(*caller, "1 2"), stub(*caller, "call p " + cc + " 1108 numbers"));
            EXPECT_EQ(answered(*caller, ""), stub(*caller, "call p " + cc + " 1000 nothing u:0 u:77 u:5 h:r"));
            EXPECT_EQ(answered(*caller, ""), stub(*caller, "call p " + cc + " 1000 nothing u:1 u:77 u:5 h:r"));
            EXPECT_EQ("1 1", puppet("observed port 77 5"));
            EXPECT_EQ(answered(*caller, ""), stub(*caller, "call p " + cc + " 1001 nothing h:r"));
            EXPECT_EQ("0 0", puppet("observed port 77 5"));
        }
    }
}

TEST_F(BuiltIns, ThatThereAreNotAreRefused) {
    for (const std::string mc : {"1102", "999"}) {
        EXPECT_EQ("head 16 sent 1 exception 1/0 value  left 0", stub("call p 0 " + mc + " nothing"));
        EXPECT_EQ("head 0 sent 0 empty", stub(owner, "call p 0 " + mc + " nothing")) << "nobody has written anything";
        EXPECT_EQ(2U, logged(owner, 3, "IPPRMI_objectSkeleton", "Unknown method code " + mc));
        EXPECT_EQ(0U, logged(user, 3, "IPPRMI_objectSkeleton", "Unknown method code"));
        EXPECT_EQ(1U, logged(owner, 3, "REFLECT_objectStub", "dispatch(this=0x",
                             "cc=0x0,mc=" + mc + ",orbId=" + owner.broker + ") to object failed"));
    }
    EXPECT_EQ(2U, logged(owner, 3, "REFLECT_orb", "Handling request message failed rc=0"));
    EXPECT_EQ("/root/port", stub("abs p"));
}

TEST_F(BuiltIns, AnswersBeginWithTheExceptionOfTheObject) {
    puppet("raise port 5");
    for (const Member *caller : {&owner, &user}) {
        EXPECT_EQ(answered(*caller, "5", "/root/port"), stub(*caller, "call p 0 1100 text"));
        EXPECT_EQ(answered(*caller, "5", "1 2"), stub(*caller, "call p 0 1108 numbers"));
        EXPECT_EQ(answered(*caller, "5", "5"), stub(*caller, "call p 0 2101 container"));
        EXPECT_EQ("/root/port", stub(*caller, "abs p")) << "another one than the general one hides nothing";
        EXPECT_EQ("5", stub(*caller, "container p"));
    }
    EXPECT_EQ("ok", stub("raise p 6"));
    EXPECT_EQ("6", stub(owner, "container p"));
    EXPECT_EQ(0U, unmarshallErrors());
}

TEST_F(BuiltIns, OfAnObjectWithTheGeneralExceptionReadAsFailures) {
    EXPECT_EQ("ok", stub("raise p 1"));
    EXPECT_EQ(1U, logged(owner, 4, "IPPRMI_objectSkeleton", "Object ", "all its answers read as failures"));
    EXPECT_EQ(1U, unmarshallErrors(2101)) << "that is the number under which setting it is reported";
    EXPECT_EQ(0U, unmarshallErrors(2100));
    EXPECT_EQ("", stub("abs p"));
    EXPECT_EQ("-", stub("up p"));
    EXPECT_EQ(1U, unmarshallErrors(1100));
    EXPECT_EQ(1U, unmarshallErrors(1103));
    EXPECT_EQ("0", stub("container p")) << "behind that of the answer, which hides it";
    EXPECT_EQ("1/7", stub(owner, "container p"));
    EXPECT_EQ("/root/port", stub(owner, "abs p"));
    EXPECT_EQ("head 16 sent 1 exception 1/7 value /root/port left 0", stub("call p 0 1100 text")) << "but it is there";
    EXPECT_EQ("0", stub("name a Absent")); // which is nowhere, as nothing is
    EXPECT_EQ("0", stub("child c p x"));
    EXPECT_EQ("0", stub("parent u p"));
    EXPECT_EQ("0", stub("none n"));
    EXPECT_EQ("1 1", stub("same c n"));
    EXPECT_EQ("1 1", stub("same u n"));
    const unsigned before = unmarshallErrors();
    EXPECT_EQ("ok", stub("register p down r"));
    EXPECT_EQ("ok", stub("unregister p up"));
    EXPECT_EQ(before, unmarshallErrors()) << "these answers nobody reads";
    EXPECT_EQ("root", stub(owner, "children p")) << "and the calls were made";
    EXPECT_EQ("ok", stub("raise p 0"));
    EXPECT_EQ("/root/port", stub("abs p"));
    EXPECT_EQ("root", stub("children p"));
    EXPECT_EQ(before, unmarshallErrors());
}

/** What the other end takes in is what was put before the arguments. */
TEST_F(BuiltIns, CallsTellWhichObjectAndMethodTheyAreFor) {
    const std::string number = puppet("make gone");
    stub("name g gone");
    puppet("drop gone");
    EXPECT_EQ("head 16 sent 1 exception 1/0 value  left 0", stub("call g DEADBEEF 4711 nothing t:x u:1"));
    EXPECT_EQ(1U, logged(owner, 3, "REFLECT_orb",
                         "ioid=0x" + number + ",transaction=true,classCode=0xDEADBEEF,methodCode=4711"));
    EXPECT_EQ("sent 1", stub("send g 12345 4712"));
    EXPECT_TRUE(owner.actor->waitLog("ioid=0x" + number + ",transaction=false,classCode=0x12345,methodCode=4712"));
}

TEST_F(BuiltIns, EventsOfAnUnknownClassReachNobody) {
    EXPECT_EQ("ok", user.actor->ask("events watch", "events "));
    EXPECT_EQ("ok", stub("know ABCDEF Odd")) << "here, which helps the owner nothing";
    puppet("make odd");
    puppet("classes odd ABCDEF");
    EXPECT_EQ("ok", puppet("begin odd"));
    EXPECT_EQ("ok", puppet("end odd"));
    EXPECT_EQ(2U, logged(owner, 3, "REFLECT_serverObject", "TreflectServerObject::sendCreationEvent(): no meta object"))
        << "the same line for both";
    puppet("classes odd ABCDEF 0DD0B1E5"); // the second one is the class that the user watches
    EXPECT_EQ("ok", puppet("begin odd"));
    EXPECT_EQ("ok", puppet("end odd"));
    EXPECT_EQ("odd", user.actor->expect("created "));
    EXPECT_EQ("odd", user.actor->expect("deleted "));
    EXPECT_TRUE(user.actor->sofar("created ").empty());
    EXPECT_TRUE(user.actor->sofar("deleted ").empty());
    EXPECT_EQ(2U,
              logged(owner, 3, "REFLECT_serverObject", "TreflectServerObject::sendCreationEvent(): no meta object"));
}

/** Their base has made itself one for the parent, before the object was of its type. */
TEST_F(BuiltIns, ClientsAreOfTheTypeOfTheClassUnderARemoteParent) {
    EXPECT_EQ("1 1 1 1", puppet(user, "types root"));
    stub(owner, "child e r equipment");
    stub(owner, "child o r observer");
    EXPECT_EQ("/root/equipment", stub(owner, "abs e"));
    EXPECT_EQ("Equipment", stub(owner, "class e"));
    EXPECT_EQ("/root/observer", stub(owner, "abs o"));
}

/** Others find it while its constructor, or its destructor, waits for the parent; then it is of no class. */
TEST_F(BuiltIns, OfAnObjectThatIsBeingMadeOrDeletedAreAnswered) {
    stub(owner, "know 77 Kid");
    puppet("hold root");
    user.actor->tell("puppet make kid root");
    EXPECT_EQ("0 1106", owner.actor->expect("asked "));
    EXPECT_EQ("1", stub(owner, "name k kid"));
    EXPECT_EQ("kid", stub(owner, "rel k"));
    EXPECT_EQ("-", stub(owner, "class k"));
    EXPECT_EQ("", stub(owner, "children k"));
    puppet("release root");
    EXPECT_NE("?", user.actor->expect("puppet "));
    EXPECT_EQ("ok", puppet(user, "classes kid 77"));
    EXPECT_EQ("Kid", stub(owner, "class k"));
    EXPECT_EQ("/root/kid", stub(owner, "abs k"));

    puppet("hold root");
    user.actor->tell("puppet drop kid");
    EXPECT_EQ("0 1107", owner.actor->expect("asked "));
    EXPECT_EQ("kid", stub(owner, "rel k"));
    EXPECT_EQ("-", stub(owner, "class k"));
    puppet("release root");
    EXPECT_EQ("dropped", user.actor->expect("puppet "));
    EXPECT_EQ("", stub(owner, "rel k"));
    EXPECT_EQ("port", stub(owner, "children r"));
}

TEST_F(BuiltIns, AnObjectThatChangesItsBrokerIsFoundThereOnly) {
    owner.actor->ask("orb 2", "orb ");
    EXPECT_EQ("kept " + owner.broker, puppet("broker port 1"));
    EXPECT_EQ("/root/port", stub("abs p"));

    const std::string moved = puppet("broker port 2");
    EXPECT_EQ(0U, moved.find("other "));
    EXPECT_NE("other " + owner.broker, moved);
    EXPECT_EQ("", stub("abs p")) << "a handle from before";
    EXPECT_TRUE(owner.actor->waitLog(",transaction=true,classCode=0x0,methodCode=1100"));
    EXPECT_EQ("0", stub("name other port")) << "it is not looked for there";

    EXPECT_EQ("other " + owner.broker, puppet("broker port 1"));
    EXPECT_EQ("/root/port", stub("abs p")) << "it has its number again";
    EXPECT_EQ("1", stub("name other port"));
    EXPECT_EQ("1 1", stub("same p other"));
}

// --- an owner that dies in the middle of a call ---------------------------------------------------------------------

struct Question {
    const char *command;
    unsigned method;
    const char *answer;
    unsigned reported; // as an unmarshalling error of this method; 0: not at all
};
void PrintTo(const Question &question, std::ostream *out) {
    *out << '"' << question.command << '"';
}

class DyingOwner : public BuiltIns, public testing::WithParamInterface<Question> {};

TEST_P(DyingOwner, LeavesTheAnswerOfACallEmpty) {
    const Question &question = GetParam();
    if (std::string(question.command).compare(0, 9, "unobserve") == 0) {
        EXPECT_EQ("ok", stub("observe p 0 double me"));
    }
    puppet("hold port");
    user.actor->tell("stub " + std::string(question.command));
    EXPECT_EQ("0 " + std::to_string(question.method), owner.actor->expect("asked "));
    owner.actor->kill();
    EXPECT_EQ(question.answer, user.actor->expect("stub "));
    EXPECT_EQ(1U, logged(user, 3, "REFLECT_objectStub", "Message forwarding failed"));
    EXPECT_EQ(question.reported != 0 ? 1U : 0U, unmarshallErrors());
    EXPECT_EQ(question.reported != 0 ? 1U : 0U, unmarshallErrors(question.reported));
    EXPECT_TRUE(user.actor->askUntil("stub state p", "stub ", "0 0 1")) << "there is nothing left in its place";
}

// The container of the broker comes first, then that of the stub; who reads takes the first.
INSTANTIATE_TEST_SUITE_P(
    BuiltIns, DyingOwner,
    testing::Values(Question{"abs p", 1100, "", 1100}, Question{"rel p", 1101, "", 1101},
                    Question{"up p", 1103, "-", 1103}, Question{"down p x", 1104, "-", 1104},
                    Question{"children p", 1105, "", 1105}, Question{"class p", 1108, "-", 1108},
                    Question{"register p x r", 1106, "ok", 0}, Question{"unregister p x", 1107, "ok", 0},
                    Question{"observe p 0 double me", 1000, "ok", 1000},
                    Question{"unobserve p double me", 1001, "ok", 1001}, Question{"raise p 5", 2100, "ok", 2101},
                    Question{"container p", 2101, "0", 2101},
                    Question{"call p 0 1100 container", 1100, "head 16 sent 0 exception 1/0 value 1/0 left 0", 0}),
    [](const testing::TestParamInfo<Question> &each) {
        const std::string command = each.param.command;
        return command.substr(0, command.find(' '));
    });

/** A parent that goes while it is told of a child is like none. */
TEST_F(BuiltIns, AChildOutlivesAParentThatDiesWhileItIsTold) {
    puppet("hold root");
    user.actor->tell("puppet make kid root");
    EXPECT_EQ("0 1106", owner.actor->expect("asked "));
    owner.actor->kill();
    EXPECT_NE("?", user.actor->expect("puppet "));
    EXPECT_EQ("1", stub("name k kid"));
    EXPECT_EQ("kid", stub("rel k"));
    EXPECT_TRUE(user.actor->askUntil("stub abs k", "stub ", "/kid"));
    EXPECT_EQ("dropped", puppet(user, "drop kid"));

    restart();
    puppet("make root");
    EXPECT_NE("?", puppet(user, "make kid root"));
    EXPECT_EQ("kid", stub(owner, "name r root") == "1" ? stub(owner, "children r") : "");
    const unsigned failed = logged(user, 3, "REFLECT_objectStub", "Message forwarding failed");
    puppet("hold root");
    user.actor->tell("puppet drop kid");
    EXPECT_EQ("0 1107", owner.actor->expect("asked "));
    owner.actor->kill();
    EXPECT_EQ("dropped", user.actor->expect("puppet "));
    EXPECT_EQ(failed + 1, logged(user, 3, "REFLECT_objectStub", "Message forwarding failed"));
    EXPECT_EQ("0", stub("name k kid"));
}

} // namespace
