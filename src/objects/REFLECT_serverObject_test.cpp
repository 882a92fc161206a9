#include "objects/REFLECT_serverObject.h"

#include "objects/REFLECT_objectStub.h"
#include "rmi/StreamOperators.h"
#include "support/BrokerTest.h"
#include "support/HeapProbe.h"
#include "threads/HandlerState.h"

#include <memory>
#include <optional>
#include <string>
#include <typeinfo>

namespace {

using Testing::hex;

constexpr unsigned kClass = 0x0BEEF001;
constexpr unsigned kAncestor = 0x0BEEF000;

/** The client type of the class. */
class NodeClient : public TreflectObject {
public:
    explicit NodeClient(const TipprmiObjectSkeleton *object) : TreflectObject(object) {}
};

class Node : public TreflectServerObject {
public:
    explicit Node(const std::string &name, const TreflectObject *parent = nullptr, const char *oid = nullptr)
        : TreflectServerObject(TipprmiOID(oid, NamespaceId(1)), parent, name) {
        dropClient_();
    }
    NodeClient *getClient() const override {
        if (client_slot_() == nullptr) {
            client_slot_(new NodeClient(this));
        }
        return static_cast<NodeClient *>(client_slot_());
    }
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override {
        TipprmiSequence<unsigned> ids;
        ids.push_back(kClass);
        ids.push_back(kAncestor);
        return ids;
    }
};

/** Leaves the client to its base. */
class Plain : public TreflectServerObject {
public:
    explicit Plain(const TreflectObject *parent, const std::string &name = "plain")
        : TreflectServerObject(TipprmiOID(nullptr, NamespaceId(1)), parent, name) {}
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override { return {}; }
};

class ServerObjectTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
};

TEST_F(ServerObjectTest, NamesOfFifteenCharactersNeedNoMemory) {
    const std::string fifteen = "fifteen letters";
    const std::string sixteen = "sixteen letters!";
    ASSERT_EQ(15U, fifteen.size());
    for (const std::string &name : {std::string(), std::string("a"), fifteen, sixteen, std::string(5000, 'x')}) {
        const Node node(name);
        EXPECT_EQ(name, node.objectName());
        EXPECT_EQ(name, node.getRelName());
        const char *const begin = reinterpret_cast<const char *>(&node);
        const bool inside = node.objectName() >= begin && node.objectName() < begin + sizeof node;
        EXPECT_EQ(name.size() <= 15, inside) << name.size();
    }
}

TEST_F(ServerObjectTest, ANameEndsAtItsFirstZeroByte) {
    const Node node(std::string("ab\0cd", 5));
    EXPECT_STREQ("ab", node.objectName());
    EXPECT_EQ("ab", node.getRelName());
    EXPECT_EQ("/ab", node.getAbsName());
    const Node cut(std::string("\0long enough for the heap", 25));
    EXPECT_EQ("", cut.getRelName());
    Node parent("parent");
    const Node sibling("ab", parent.getClient());
    {
        const Node child(std::string("cd\0ef", 5), parent.getClient());
        EXPECT_EQ(&child, parent.getChild("cd").getServer()) << "listed under the name that it says it has";
        EXPECT_EQ(2U, parent.getChilds().getLength());
    }
    EXPECT_EQ(1U, parent.getChilds().getLength());
    EXPECT_EQ(&sibling, parent.getChild("ab").getServer());
}

TEST_F(ServerObjectTest, WithoutMemoryForItsNameAnObjectHasNone) {
    const std::string name(5000, 'x');
    std::unique_ptr<Plain> object;
    {
        const Testing::FailingHeap heap(1, Testing::FailingHeap::Calls::all); // for the object itself
        EXPECT_NO_THROW(object = std::make_unique<Plain>(nullptr, name));
    }
    ASSERT_NE(nullptr, object);
    EXPECT_STREQ(Testing::kLibraryHeapIsProbed ? "" : name.c_str(), object->objectName());
}

/** Its parent may have another child of the empty name. */
TEST_F(ServerObjectTest, WithoutMemoryForItsNameAnObjectIsNobodysChild) {
    Node parent("parent");
    const Node nameless("", parent.getClient());
    const std::string name = "a name of 20 letters";
    std::optional<Plain> object;
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all, 1); // for the copy of the name only
        EXPECT_NO_THROW(object.emplace(parent.getClient(), name));
    }
    ASSERT_TRUE(object.has_value());
    if (Testing::kLibraryHeapIsProbed) {
        EXPECT_STREQ("", object->objectName());
        EXPECT_FALSE(object->getParent().isConnected());
    }
    EXPECT_EQ(&nameless, parent.getChild("").getServer());
    object.reset();
    EXPECT_EQ(&nameless, parent.getChild("").getServer());
}

/** The parent has never heard of it. */
TEST_F(ServerObjectTest, WithoutMemoryForItsClientAnObjectIsNobodysChild) {
    Node parent("parent");
    const Node sibling("x", parent.getClient());
    std::optional<Plain> object;
    {
        const Testing::FailingHeap heap;
        object.emplace(parent.getClient(), "x");
    }
    EXPECT_FALSE(object->getParent().isConnected());
    EXPECT_EQ("/x", object->getAbsName());
    EXPECT_EQ(&sibling, parent.getChild("x").getServer());
    object.reset();
    EXPECT_EQ(&sibling, parent.getChild("x").getServer());
}

/** Wherever the memory ends: the name of a child is longer than what needs none. */
TEST_F(ServerObjectTest, ChildrenComeAndGoWithoutMemory) {
    const std::string name = "a name of 20 letters";
    ASSERT_EQ(20U, name.size());
    Node parent("parent");
    const TreflectObject handle(&parent);
    bool registered = false;
    for (unsigned allowed = 0; allowed < 100 && !registered; ++allowed) {
        std::optional<Plain> child;
        {
            const Testing::FailingHeap heap(allowed, Testing::FailingHeap::Calls::all);
            EXPECT_NO_THROW(child.emplace(&handle, name)) << allowed;
        }
        ASSERT_TRUE(child.has_value());
        registered = parent.getChild(name).isConnected();
        {
            const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
            child.reset();
        }
        EXPECT_EQ(0U, parent.getChilds().getLength()) << allowed;
    }
    EXPECT_TRUE(registered);
}

TEST_F(ServerObjectTest, WithoutMemoryForItsAnswerAnObjectRefusesTheCall) {
    Node node(std::string(5000, 'x'));
    TipprmiStream request(100);
    TipprmiStream response(100);
    for (unsigned mc : {1100U, 1101U}) {
        bool handled = true;
        {
            const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
            EXPECT_NO_THROW(handled = node.dispatch(true, 0, mc, request, response));
        }
        EXPECT_EQ(!Testing::kLibraryHeapIsProbed, handled) << mc;
        EXPECT_TRUE(node.dispatch(true, 0, mc, request, response)) << mc;
    }
}

/** Whatever a class makes of getChild(). */
TEST_F(ServerObjectTest, ListsThoseThatHaveRegistered) {
    class Secretive : public Node {
    public:
        using Node::Node;
        TreflectObject getChild(const std::string &) const override { return TreflectObject(); }
    };
    Secretive root("root");
    const Node b("b", root.getClient());
    const Node a("a", root.getClient());
    const TipprmiSequence<TreflectObject> childs = root.getChilds();
    ASSERT_EQ(2U, childs.getLength());
    EXPECT_EQ(&a, childs[0].getServer());
    EXPECT_EQ(&b, childs[1].getServer());
}

TEST_F(ServerObjectTest, ObjectsMakeATree) {
    Node a("a");
    EXPECT_EQ("/a", a.getAbsName());
    EXPECT_FALSE(a.getParent().isConnected());
    {
        Node b("b", a.getClient());
        Node c("c", b.getClient());
        EXPECT_EQ("/a/b", b.getAbsName());
        EXPECT_EQ("/a/b/c", c.getAbsName());
        EXPECT_EQ("c", c.getRelName());
        EXPECT_EQ(&a, b.getParent().getServer());
        EXPECT_EQ(&b, a.getChild("b").getServer());
        EXPECT_FALSE(a.getChild("c").isConnected());
        // The same by way of handles.
        const TreflectObject root(&a);
        EXPECT_EQ("/a/b/c", root.getChild("b").getChild("c").getAbsName());
        EXPECT_EQ("b", root.getChild("b").getRelName());
        EXPECT_EQ(&a, root.getChild("b").getParent().getServer());
        EXPECT_EQ(1U, root.getChilds().getLength());
    }
    EXPECT_EQ(0U, a.getChilds().getLength());
    EXPECT_FALSE(a.getChild("b").isConnected());
}

TEST_F(ServerObjectTest, ChildrenComeInTheOrderOfTheirNames) {
    Node root("root");
    EXPECT_EQ(0U, root.getChilds().getLength());
    Node b("b", root.getClient());
    Node a("a", root.getClient());
    Node upper("B", root.getClient());
    const TipprmiSequence<TreflectObject> childs = root.getChilds();
    ASSERT_EQ(3U, childs.getLength());
    EXPECT_EQ(&upper, childs[0].getServer());
    EXPECT_EQ(&a, childs[1].getServer());
    EXPECT_EQ(&b, childs[2].getServer());
}

TEST_F(ServerObjectTest, TheLastChildOfANameStaysUntilOneOfThemGoes) {
    Node root("root");
    auto first = std::make_unique<Node>("x", root.getClient());
    const Node second("x", root.getClient());
    EXPECT_EQ(1U, root.getChilds().getLength());
    EXPECT_EQ(&second, root.getChild("x").getServer());
    first.reset(); // takes the name with it
    EXPECT_FALSE(root.getChild("x").isConnected());
    root.registerChild("x", *second.getClient());
    EXPECT_EQ(&second, root.getChild("x").getServer());
    root.unregisterChild("y");
    EXPECT_EQ(1U, root.getChilds().getLength());
    root.unregisterChild("x");
    EXPECT_EQ(0U, root.getChilds().getLength());
    root.unregisterChild("x");
}

TEST_F(ServerObjectTest, AChildCanBeReplacedByAHandleOfItself) {
    Node root("root");
    Node child("x", root.getClient());
    const int count = child.getClient()->getStub()->refCount();
    root.registerChild("x", root.getChild("x"));
    root.registerChild("x", *child.getClient());
    EXPECT_EQ(&child, root.getChild("x").getServer());
    EXPECT_EQ(count, child.getClient()->getStub()->refCount());
}

TEST_F(ServerObjectTest, NamesOfChildrenAreKeptWhole) {
    Node root("root");
    Node other("other");
    const std::string odd("a\0%s/b", 7);
    root.registerChild(odd, *other.getClient());
    root.registerChild("a", *root.getClient());
    root.registerChild("", *other.getClient());
    EXPECT_EQ(3U, root.getChilds().getLength());
    EXPECT_EQ(&other, root.getChild(odd).getServer());
    EXPECT_EQ(&root, root.getChild("a").getServer());
    EXPECT_EQ(&other, root.getChild("").getServer());
    root.unregisterChild(odd);
    EXPECT_EQ(2U, root.getChilds().getLength());
}

TEST_F(ServerObjectTest, ParentsMayGoBeforeTheirChildren) {
    auto parent = std::make_unique<Node>("a");
    auto child = std::make_unique<Node>("b", parent->getClient());
    EXPECT_EQ("/a/b", child->getAbsName());
    parent.reset();
    EXPECT_FALSE(child->getParent().isConnected());
    EXPECT_EQ("/b", child->getAbsName());
    // Also when another object has come in the place of the parent, perhaps with its number.
    Node next("a");
    Node own("b", next.getClient());
    log.clear();
    child.reset();
    EXPECT_EQ(&own, next.getChild("b").getServer());
    EXPECT_TRUE(log.with("set to invalid").empty()) << "nor is a call tried";
}

TEST_F(ServerObjectTest, AParentThatIsNotThereIsLikeNone) {
    const TreflectObject nobody;
    log.clear();
    const Node node("a", &nobody);
    EXPECT_EQ("/a", node.getAbsName());
    EXPECT_FALSE(node.getParent().isConnected());
    EXPECT_EQ(2U, log.with("mc=1106,").size()) << "a call that is prepared and goes nowhere";
    EXPECT_TRUE(link.takeIssued().empty());
}

TEST_F(ServerObjectTest, TheClientIsOfTheTypeOfTheClass) {
    const Node root("root");
    for (const TreflectObject *parent :
         {static_cast<const TreflectObject *>(nullptr), static_cast<const TreflectObject *>(root.getClient())}) {
        const Node node("node", parent);
        const TipprmiObjectSkeleton &skeleton = node;
        const TipprmiObjectClient *const client = skeleton.getClient();
        EXPECT_EQ(typeid(NodeClient), typeid(*client));
        EXPECT_EQ(client, node.getClient());
        EXPECT_EQ(&node, client->getServer());
        const Plain plain(parent);
        const TipprmiObjectClient &own = *plain.getClient();
        EXPECT_EQ(typeid(TreflectObject), typeid(own));
    }
}

TEST_F(ServerObjectTest, TheClientLivesUntilTheObjectMoves) {
    Node node("node", nullptr, "node");
    const NodeClient *const client = node.getClient();
    node.connect(&orb, node.getOID());
    node.connect(nullptr, node.getOID());
    EXPECT_EQ(client, node.getClient());
    const int count = client->getStub()->refCount();
    const TreflectObject kept(*client);
    TreflectORB *const other = TreflectORB::getInstance(NamespaceId(2));
    ASSERT_NE(nullptr, other);
    ASSERT_NE(&orb, other);
    node.connect(other, node.getOID());
    EXPECT_EQ(count, kept.getStub()->refCount()) << "the client of the old registration is gone";
    EXPECT_EQ(other->orbId(), node.orbId());
    EXPECT_EQ(other->orbId(), node.getClient()->getStub()->orbId());
    EXPECT_NE(kept.getStub(), node.getClient()->getStub());
}

TEST_F(ServerObjectTest, AClientThatThereWasNoMemoryForIsMadeLater) {
    const Plain plain(nullptr);
    const TipprmiObjectSkeleton bare;
    {
        const Testing::FailingHeap heap;
        EXPECT_EQ(nullptr, plain.getClient());
        EXPECT_EQ(nullptr, bare.getClient());
    }
    ASSERT_NE(nullptr, plain.getClient());
    EXPECT_EQ(&plain, plain.getClient()->getServer());
    EXPECT_NE(nullptr, bare.getClient());
}

TEST_F(ServerObjectTest, WithoutMemoryThereIsNoChild) {
    Node root("root");
    const Plain plain(nullptr);
    const TreflectObject child(&plain);
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        root.registerChild("child", child);
    }
    EXPECT_EQ(0U, root.getChilds().getLength());
    root.registerChild("child", child);
    EXPECT_EQ(&plain, root.getChild("child").getServer());
}

TEST_F(ServerObjectTest, AListThatThereIsNoMemoryForEndsBeforeThat) {
    Node root("root");
    Node first("a", root.getClient());
    const Node second(std::string(5000, 'x'), root.getClient());
    TipprmiSequence<TreflectObject> childs;
    {
        const Testing::FailingHeap heap(1, Testing::FailingHeap::Calls::all); // for the list, but not for a long name
        EXPECT_NO_THROW(childs = root.getChilds());
    }
    ASSERT_EQ(Testing::kLibraryHeapIsProbed ? 1U : 2U, childs.getLength());
    EXPECT_EQ(&first, childs[0].getServer());
    {
        const Testing::FailingHeap heap(0, Testing::FailingHeap::Calls::all);
        EXPECT_NO_THROW(childs = root.getChilds());
    }
    EXPECT_EQ(0U, childs.getLength());
}

} // namespace
