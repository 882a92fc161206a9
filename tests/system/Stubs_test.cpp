#include "system/StubsTest.h"

#include <cstdlib>

namespace {

#if defined(REFLECTORB_SANITIZED)
constexpr bool kMemoryIsMeasured = false; // sanitizers keep what is freed
#else
constexpr bool kMemoryIsMeasured = true;
#endif
constexpr long kMoreMemory = 1024; // KiB; a stub that is left for each handle takes many times that

const char *const kNoMeta = "TreflectObjectStub::meta() - did not find any meta information, returning NULL";
const char *const kNotRegistered = "TreflectObjectStub::registerObserver FAILED: oper, oper->meta() or obs is NULL";

/** What handles of objects of another actor share. */
class Stubs : public Testing::StubsTest {
protected:
    long memory() const {
        const std::string figures = user.actor->ask("figures", "figures ");
        return std::strtol(figures.substr(figures.find(' ')).c_str(), nullptr, 10);
    }
    unsigned tries() const {
        return logged(user, 6, "REFLECT_objectStub", "prepareRequestStream_(this=0x", " to non connected stub object");
    }
    /** All that a handle of nothing answers by itself. */
    void expectNothing(const std::string &name) const {
        EXPECT_EQ("", stub("abs " + name));
        EXPECT_EQ("", stub("rel " + name));
        EXPECT_EQ("-", stub("up " + name));
        EXPECT_EQ("-", stub("down " + name + " x"));
        EXPECT_EQ("", stub("children " + name));
        EXPECT_EQ("-", stub("class " + name));
        EXPECT_EQ("ok", stub("register " + name + " x " + name));
        EXPECT_EQ("ok", stub("unregister " + name + " x"));
        EXPECT_EQ("ok", stub("observe " + name + " 0 double me"));
        EXPECT_EQ("ok", stub("unobserve " + name + " double me"));
        EXPECT_EQ("ok", stub("raise " + name + " 5"));
        EXPECT_EQ("sent 0", stub("send " + name + " 7 5000"));
    }
};

// --- nothing --------------------------------------------------------------------------------------------------------

/** There is an object of just the name that stands for nothing in messages. */
TEST_F(Stubs, OfNothingAreOneAndAskNobody) {
    puppet("make InvalidStub");
    puppet("make root");
    stub("name r root");
    stub("observe r 0 double me"); // makes the observer
    stub("unobserve r double me");
    const std::string before = stubs();
    EXPECT_EQ("0", stub("none n"));
    const std::string state = stub("state n");
    const std::string references = state.substr(4);
    EXPECT_EQ("0 1 " + references, state);
    const unsigned sent = requests();
    EXPECT_EQ("0", stub("copy m n"));
    EXPECT_EQ("0 1 " + std::to_string(std::stoi(references) + 1), stub("state n"));
    EXPECT_EQ("1 1", stub("same n m"));
    expectNothing("n");
    EXPECT_EQ("0", stub("container n")) << "zeros, behind the failure";
    EXPECT_EQ("head 16 sent 0 exception 1/0 value  left 0", stub("call n 7 1100 nothing"));
    EXPECT_EQ(sent, requests());
    EXPECT_EQ("0", puppet("calls InvalidStub"));

    EXPECT_EQ("0", stub("child c r nothing"));
    EXPECT_EQ("0", stub("parent u r"));
    EXPECT_EQ("1 1", stub("same n c")) << "nothing comes from another actor as nothing";
    EXPECT_EQ("1 1", stub("same n u"));
    EXPECT_EQ("ok", stub("register r empty n")) << "and goes there";
    EXPECT_EQ("-", stub("down r empty"));
    EXPECT_EQ("-", stub(owner, "name r root") == "1" ? stub(owner, "down r empty") : "");
    EXPECT_EQ("1", stub("name i InvalidStub")) << "by its name the object is found";
    EXPECT_EQ("/InvalidStub", stub("abs i"));
    EXPECT_EQ("", stub("abs n"));
    for (const char *each : {"m", "c", "u", "i"}) {
        stub(std::string("drop ") + each);
    }
    EXPECT_EQ(state, stub("state n"));
    EXPECT_EQ(before, stubs());
}

// --- one for all ----------------------------------------------------------------------------------------------------

TEST_F(Stubs, AreSharedByAllHandlesOfAnObjectAndGoWithTheLast) {
    puppet("make root");
    puppet("make thing root");
    const std::string without = stubs();
    stub("name t thing");
    EXPECT_EQ("1 1 1", stub("state t"));
    const std::string with = stubs();
    EXPECT_NE(without, with);
    stub("name r root");
    stub("child c r thing");
    stub("copy d c");
    EXPECT_EQ("1 1", stub("same t c"));
    EXPECT_EQ("1 1", stub("same c d"));
    EXPECT_EQ("1 1 3", stub("state t"));
    stub("drop r");
    EXPECT_EQ(with, stubs());
    stub("drop t");
    stub("drop c");
    EXPECT_EQ("1 1 1", stub("state d"));
    EXPECT_EQ("/root/thing", stub("abs d"));
    EXPECT_EQ(with, stubs());
    stub("drop d");
    EXPECT_EQ(without, stubs());
}

TEST_F(Stubs, AreNotMoreForThousandsOfHandles) {
    puppet("make thing");
    const std::string without = stubs();
    stub("name t thing");
    const std::string with = stubs();
    EXPECT_EQ("3001 of 3001 references 3002", stub("many t 3000"));
    const long used = memory();
    for (int round = 0; round < 10; ++round) {
        EXPECT_EQ("3001 of 3001 references 3002", stub("many t 3000"));
    }
    EXPECT_EQ("1 1 1", stub("state t"));
    EXPECT_EQ(with, stubs());
    if (kMemoryIsMeasured) {
        EXPECT_LE(memory(), used + kMoreMemory);
    }
    stub("drop t");
    EXPECT_EQ("0", stub("none t"));
    EXPECT_EQ(without, stubs());
}

TEST_F(Stubs, AreLeftWhenTheirHandlesGoFromObjectToObject) {
    puppet("make a");
    puppet("make b");
    puppet(user, "make own");
    stub(user, "name o own");
    const std::string without = stubs();
    stub("name h a");
    const std::string with = stubs();
    EXPECT_EQ("/a", stub("abs h"));
    EXPECT_EQ("1", stub("connect h b"));
    EXPECT_EQ("/b", stub("abs h"));
    EXPECT_EQ("1 1 1", stub("state h"));
    EXPECT_EQ(with, stubs()) << "that of a is gone";
    EXPECT_EQ("1", stub("connect h b"));
    EXPECT_EQ("1 1 1", stub("state h"));
    EXPECT_EQ("1", stub("own h own")) << "in this actor, with another broker";
    EXPECT_EQ("/own", stub("abs h"));
    EXPECT_EQ("1 1", stub("same h o"));
    EXPECT_EQ(without, stubs());
    EXPECT_EQ("0", stub("connect h nobody"));
    EXPECT_EQ("", stub("abs h"));
    EXPECT_EQ("1", stub("connect h a"));
    EXPECT_EQ("/a", stub("abs h"));
    stub("drop h");
    EXPECT_EQ(without, stubs());
}

// --- before the object is there -------------------------------------------------------------------------------------

TEST_F(Stubs, LookForTheirObjectUntilItIsThere) {
    const std::string without = stubs();
    unsigned sent = requests();
    EXPECT_EQ("0", stub("name h late"));
    EXPECT_EQ(sent + 2, requests()) << "where it is, and to connect";
    EXPECT_EQ("0", stub("copy c h"));
    EXPECT_EQ(sent + 3, requests());
    EXPECT_EQ("1 1", stub("same h c"));
    EXPECT_EQ(0U, tries());
    EXPECT_EQ("", stub("abs h"));
    EXPECT_EQ("", stub("abs c"));
    EXPECT_EQ(sent + 5, requests()) << "each call looks for it, and is not made";
    EXPECT_EQ(2U, tries());
    EXPECT_EQ(2U, logged(user, 6, "REFLECT_objectStub", "dispatch(this=0x",
                         "cc=0x0,mc=1100,orbId=" + user.broker + ") request to invalid stub object"));
    EXPECT_EQ("head 16 sent 0 exception 1/0 value  left 0", stub("call h 7 5000 nothing"));

    puppet("make late");
    sent = requests();
    EXPECT_EQ("/late", stub("abs h"));
    EXPECT_EQ(sent + 2, requests()) << "one to find it, and the call";
    EXPECT_EQ("/late", stub("abs c")) << "the copy has found it, too";
    EXPECT_EQ(sent + 3, requests());
    EXPECT_EQ(4U, tries());
    EXPECT_EQ("1", stub("name n late"));
    EXPECT_EQ("1 1", stub("same h n")) << "it is found where it is now";
    EXPECT_EQ("1 1 3", stub("state h"));
    stub("drop h");
    stub("drop c");
    EXPECT_EQ("/late", stub("abs n"));
    stub("drop n");
    EXPECT_EQ(without, stubs());
}

/** Found for a call that is prepared already, and needs no head any more. */
TEST_F(Stubs, FindTheirObjectInTheirOwnActorToo) {
    EXPECT_EQ("0", stub("name h late"));
    EXPECT_EQ("head 16 sent 0 exception 1/0 value  left 0", stub("call h 7 1104 nothing t:x"));
    puppet(user, "make late");
    puppet(user, "make below late");
    EXPECT_EQ("0", stub("name k kid"));
    EXPECT_EQ("head 0 sent 1 exception 0 value below left 0", stub("call h 7 1104 object t:below"));
    puppet(user, "make kid late");
    EXPECT_EQ("/late/kid", stub("abs k"));
    puppet("make late"); // the first one that was found stays
    EXPECT_EQ("below kid", stub("children h"));
}

// --- after the owner has gone ---------------------------------------------------------------------------------------

TEST_F(Stubs, OfADeadActorStayDeadAndHaveSuccessors) {
    puppet("make thing");
    puppet(user, "make mine");
    const std::string without = stubs();
    stub("name h thing");
    stub("copy c h");
    stub("copy k h");
    EXPECT_EQ("1 1 3", stub("state h"));
    killOwner("h");
    EXPECT_EQ("", stub("abs h"));
    restart();
    puppet("make thing");
    EXPECT_EQ("", stub("abs h"));
    EXPECT_EQ("0 0 3", stub("state c"));

    const unsigned sent = requests();
    EXPECT_EQ("0", stub("revive h thing")) << "of a name it does not come back";
    EXPECT_EQ("0", stub("copy c h"));
    EXPECT_EQ(sent, requests()) << "and is not looked for";
    EXPECT_EQ("1", stub("name g thing"));
    EXPECT_EQ("0 1", stub("same g h")) << "of the same name, but not the same any more";
    EXPECT_EQ("/thing", stub("abs g"));
    EXPECT_EQ("", stub("abs h"));
    EXPECT_EQ("1", stub("connect k thing")) << "the handle takes the new one";
    EXPECT_EQ("1 1", stub("same g k"));
    EXPECT_EQ("0 0 2", stub("state h"));

    EXPECT_EQ("1", stub("reviveown h mine")) << "of an object it does";
    EXPECT_EQ("1 1 2", stub("state c"));
    EXPECT_EQ("/mine", stub("abs h"));
    EXPECT_EQ("/mine", stub("abs c"));
    EXPECT_EQ("/thing", stub("abs k"));
    for (const char *each : {"h", "c", "g", "k"}) {
        stub(std::string("drop ") + each);
    }
    EXPECT_EQ(without, stubs());
}

TEST_F(Stubs, OfADeadActorAnswerByThemselves) {
    puppet("make thing");
    stub("name h thing");
    stub("observe h 0 double me"); // makes the observer
    const Member dead{nullptr, owner.broker, owner.id};
    killOwner("h");
    restart();
    puppet("make thing");
    const unsigned toDead = requestsTo(dead.id);
    const unsigned toLiving = requests();
    const unsigned errors = unmarshallErrors();
    const auto prepared = [this, &dead](const std::string &call) {
        return logged(user, 4, "REFLECT_objectStub", "prepareRequestStream_(this=0x",
                      call + ",orbId=" + dead.broker + ") to stub object set to invalid");
    };
    const auto refused = [this](const std::string &call) {
        return logged(user, 4, "REFLECT_objectStub", "dispatch(this=0x",
                      call + ",orbId=" + user.broker + ") request to stub object set to invalid");
    };
    EXPECT_EQ("head 4 sent 0 exception 1/0 value  left 0", stub("call h 7 5000 nothing"))
        << "what was in the request is still there, and there is one container";
    EXPECT_EQ(1U, prepared("cc=0x7,mc=5000"));
    EXPECT_EQ(1U, refused("cc=0x7,mc=5000"));
    EXPECT_EQ("1/0", stub("container h"));
    EXPECT_EQ(0U, prepared("cc=0x0,mc=2101"));
    EXPECT_EQ(0U, refused("cc=0x0,mc=2101")) << "not even tried";
    EXPECT_EQ(errors, unmarshallErrors());

    const unsigned classes = logged(user, 4, "REFLECT_objectStub", kNoMeta);
    expectNothing("h");
    EXPECT_EQ(classes + 1, logged(user, 4, "REFLECT_objectStub", kNoMeta));
    for (const char *mc : {"1000", "1001", "1100", "1101", "1103", "1104", "1105", "1106", "1107"}) {
        EXPECT_EQ(1U, prepared(std::string("cc=0x0,mc=") + mc)) << mc;
        EXPECT_EQ(1U, refused(std::string("cc=0x0,mc=") + mc)) << mc;
    }
    for (const char *mc : {"1108", "2100", "2101"}) {
        EXPECT_EQ(0U, prepared(std::string("cc=0x0,mc=") + mc)) << mc;
        EXPECT_EQ(0U, refused(std::string("cc=0x0,mc=") + mc)) << mc;
    }
    EXPECT_EQ(errors + 7, unmarshallErrors()) << "all but the two that are not read";
    EXPECT_EQ(toDead, requestsTo(dead.id));
    EXPECT_EQ(toLiving, requests());
    EXPECT_EQ("0", puppet("calls thing"));
}

// --- classes --------------------------------------------------------------------------------------------------------

TEST_F(Stubs, AskForTheClassEachTimeAndTakeTheFirstThatIsKnownHere) {
    puppet("make thing");
    puppet("classes thing A00 B00 C00");
    stub(owner, "know A00 Owners");
    stub("know C00 Third");
    stub("name h thing");
    unsigned sent = requests();
    EXPECT_EQ("Third", stub("class h"));
    stub("know B00 Second");
    EXPECT_EQ("Second", stub("class h"));
    EXPECT_EQ("Second", stub("class h"));
    EXPECT_EQ(sent + 3, requests());
    puppet("classes thing C00 B00");
    EXPECT_EQ("Third", stub("class h"));
    EXPECT_EQ(0U, logged(user, 4, "REFLECT_objectStub", kNoMeta));
    puppet("classes thing A00");
    EXPECT_EQ("-", stub("class h"));
    puppet("classes thing");
    EXPECT_EQ("-", stub("class h"));
    EXPECT_EQ(2U, logged(user, 4, "REFLECT_objectStub", kNoMeta));
    EXPECT_EQ(sent + 6, requests());
    stub(owner, "name h thing");
    EXPECT_EQ("-", stub(owner, "class h"));
    puppet("classes thing A00 B00 C00");
    EXPECT_EQ("Owners", stub(owner, "class h")) << "each actor knows its own";

    stub("name l late");
    puppet("make late");
    puppet("classes late B00");
    sent = requests();
    EXPECT_EQ("-", stub("class l")) << "it is not looked for to ask it";
    EXPECT_EQ(3U, logged(user, 4, "REFLECT_objectStub", kNoMeta));
    EXPECT_EQ(sent, requests());
    EXPECT_EQ("late", stub("rel l"));
    EXPECT_EQ("Second", stub("class l"));
}

// --- equality -------------------------------------------------------------------------------------------------------

TEST_F(Stubs, WithNamesAreEqualByNameAndOthersByPlace) {
    puppet("make root");
    const std::string number = puppet("make same root");
    const std::string x = puppet("unnamed x root");
    puppet("unnamed y root");
    puppet(user, "make same");
    stub("name r root");
    stub("name own same");
    stub("child its r same");
    EXPECT_EQ("/same", stub("abs own"));
    EXPECT_EQ("/root/same", stub("abs its"));
    EXPECT_EQ("0 1", stub("same own its")) << "the same name in two actors";

    stub("child x1 r x");
    stub("child x2 r x");
    stub("child y r y");
    EXPECT_EQ("/root/x", stub("abs x1"));
    EXPECT_EQ("1 1", stub("same x1 x2"));
    EXPECT_EQ("0 0", stub("same x1 y"));
    EXPECT_EQ("0 0", stub("same x1 its"));
    EXPECT_EQ("1", stub("name x3 rmi_" + owner.broker + "_" + x)) << "by its place";
    EXPECT_EQ("1 1", stub("same x1 x3"));
    EXPECT_EQ("1 1 3", stub("state x1"));
    stub("name its2 rmi_" + owner.broker + "_" + number);
    EXPECT_EQ("1 1", stub("same its its2")) << "an object with a name is found by its place, too";
    stub("name nowhere rmi_" + user.broker + "_" + x);
    EXPECT_EQ("0 0", stub("same x1 nowhere")) << "the same number in another actor";

    killOwner("x1");
    EXPECT_EQ("1 1", stub("same x1 x2"));
    EXPECT_EQ("0 1", stub("same own its")) << "names outlive their objects";
    stub("name x4 rmi_" + owner.broker + "_" + x);
    EXPECT_EQ("0 0", stub("same x1 x4")) << "one that is dead, and one that is not known to be";
}

// --- observers ------------------------------------------------------------------------------------------------------

TEST_F(Stubs, RegisterNoObserverOfNothing) {
    owner.actor->ask("object make thing", "object ");
    const auto observed = [this] { return owner.actor->ask("object observed thing", "object "); };
    stub("name h thing");
    const unsigned sent = requests();
    EXPECT_EQ("ok", stub("observe h 0 - me"));
    EXPECT_EQ("ok", stub("observe h 0 loose me"));
    EXPECT_EQ("ok", stub("observe h 1 double -"));
    EXPECT_EQ("ok", stub("observe h 1 - -"));
    EXPECT_EQ(4U, logged(user, 3, "REFLECT_objectStub", kNotRegistered));
    EXPECT_EQ(sent, requests());
    EXPECT_EQ("0 0", observed());

    for (const char *operation : {"-", "loose", "double"}) {
        EXPECT_EQ("ok", stub("observe h 0 double me"));
        EXPECT_EQ("ok", stub("observe h 1 double me"));
        EXPECT_EQ("1 1", observed());
        EXPECT_EQ("ok", stub(std::string("unobserve h ") + operation + " me"));
        EXPECT_EQ("0 0", observed()) << "of all operations, whichever is given";
    }
    EXPECT_EQ("ok", stub("observe h 0 double me"));
    const unsigned after = requests();
    EXPECT_EQ("ok", stub("unobserve h double -"));
    EXPECT_EQ(1U, logged(user, 3, "REFLECT_objectStub", "TreflectObjectStub::removeObserver FAILED: observer is NULL"));
    EXPECT_EQ(after, requests());
    EXPECT_EQ("1 0", observed());
    EXPECT_EQ(4U, logged(user, 3, "REFLECT_objectStub", kNotRegistered));
}

} // namespace
