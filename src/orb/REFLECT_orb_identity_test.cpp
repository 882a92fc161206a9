#include "orb/REFLECT_orb.h"

#include "orb/Addressing_p.h"
#include "support/BrokerTest.h"
#include "support/Scenario.h"

#include <climits>

namespace {

using namespace Addressing;
using Transport::GroupId;
using Transport::TerminationId;

constexpr const char *kSource = "REFLECT_orb";

class AddressingTest : public testing::Test {
protected:
    /** Slots 6 and 7 hold auxiliary units. */
    static Place place(unsigned slot, unsigned activeSlot) {
        return {slot, activeSlot, [](unsigned other) { return other == 6 || other == 7; }};
    }
    static constexpr unsigned kOrbId = 0xAB;
    Testing::LogCapture log;
};

TEST_F(AddressingTest, TheGroupOfTheUnitsNamespaceDependsOnTheSlot) {
    EXPECT_EQ(1U, groupOf(1, place(1, 1), kOrbId));
    EXPECT_EQ(1U, groupOf(1, place(1, 2), kOrbId));
    EXPECT_EQ(1U, groupOf(1, place(2, 1), kOrbId));
    EXPECT_EQ(2U, groupOf(1, place(2, 2), kOrbId));
    EXPECT_EQ(2U, groupOf(1, place(3, 2), kOrbId));
    EXPECT_EQ(2U, groupOf(1, place(6, 1), kOrbId)) << "auxiliary";
    EXPECT_EQ(2U, groupOf(1, place(6, 6), kOrbId));
    const Place auxiliaryInSlotOne{1, 1, [](unsigned slot) { return slot == 1; }};
    EXPECT_EQ(1U, groupOf(1, auxiliaryInSlotOne, kOrbId));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(AddressingTest, OtherNamespacesHaveTheirGroupWhateverTheSlot) {
    EXPECT_EQ(3U, groupOf(NSID_NODE, place(1, 1), kOrbId));
    EXPECT_EQ(3U, groupOf(NSID_NODE, place(6, 2), kOrbId));
    for (unsigned ns : {3U, 4U, 255U, 256U, UINT_MAX}) {
        EXPECT_EQ(0U, groupOf(ns, place(1, 1), kOrbId));
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(0U, groupOf(NSID_UNDEF, place(1, 1), kOrbId));
    EXPECT_EQ(1U, log.count(3, "ORB (orbId=0xAB) can not handle namespace id NSID_UNDEF", kSource));
    EXPECT_EQ(1U, log.lines().size());
}

TEST_F(AddressingTest, GroupsBelongToNamespaces) {
    EXPECT_EQ(1U, namespaceOf(Transport::GRPID_SLOT1, kOrbId));
    EXPECT_EQ(1U, namespaceOf(Transport::GRPID_OTHER, kOrbId));
    EXPECT_EQ(2U, namespaceOf(Transport::GRPID_NODE, kOrbId));
    for (unsigned group : {5U, 7U, 255U, UINT_MAX}) {
        EXPECT_EQ(0U, namespaceOf(static_cast<GroupId>(group), kOrbId));
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(0U, namespaceOf(Transport::GRPID_UNDEF, kOrbId));
    EXPECT_EQ(1U, log.count(3, "ORB (orbId=0xAB) can not handle group id GRPID_UNDEF", kSource));
    EXPECT_EQ(0U, namespaceOf(Transport::TRSPCTRL, kOrbId));
    EXPECT_EQ(1U, log.count(6, "ORB (orbId=0xAB) can not handle group id TRSPCTRL", kSource));
    EXPECT_EQ(2U, log.lines().size());
}

TEST_F(AddressingTest, AnIdentifierWithoutSlotMeansTheActiveOne) {
    const TreflectOrbId id(0x1234, 0, 1);
    EXPECT_EQ(TerminationId(0x1234, 1, 1), addressOf(id, place(1, 1)));
    EXPECT_EQ(TerminationId(0x1234, 1, 1), addressOf(id, place(5, 1)));
    EXPECT_EQ(TerminationId(0x1234, 2, 2), addressOf(id, place(5, 2)));
    EXPECT_EQ(TerminationId(0x1234, 6, 2), addressOf(id, place(6, 1))) << "on an auxiliary unit the own one";
    const Place auxiliaryInSlotOne{1, 2, [](unsigned slot) { return slot == 1; }};
    EXPECT_EQ(TerminationId(0x1234, 1, 1), addressOf(id, auxiliaryInSlotOne));
}

TEST_F(AddressingTest, AnIdentifiersOwnSlotIsKeptButDoesNotDecideTheGroup) {
    EXPECT_EQ(TerminationId(0x1234, 5, 1), addressOf(TreflectOrbId(0x1234, 5, 1), place(1, 1)));
    EXPECT_EQ(TerminationId(0x1234, 5, 2), addressOf(TreflectOrbId(0x1234, 5, 1), place(1, 2)));
    EXPECT_EQ(TerminationId(0x1234, 1, 2), addressOf(TreflectOrbId(0x1234, 1, 1), place(1, 2)));
    EXPECT_EQ(TerminationId(0x1234, 6, 1), addressOf(TreflectOrbId(0x1234, 6, 1), place(6, 1)));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(AddressingTest, IdentifiersOfOtherNamespacesBecomeAddressesAsTheyAre) {
    EXPECT_EQ(TerminationId(0x1234, 5, 3), addressOf(TreflectOrbId(0x1234, 5, NSID_NODE), place(1, 2)));
    EXPECT_EQ(TerminationId(0x1234, 5, 0), addressOf(TreflectOrbId(0x1234, 5, 3), place(1, 2)));
    EXPECT_EQ(TerminationId(0x1234, 0, 0), addressOf(TreflectOrbId(0x1234, 0, 255), place(1, 2)));
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(TerminationId(0x1234, 0, 3), addressOf(TreflectOrbId(0x1234, 0, NSID_NODE), place(1, 2)));
    EXPECT_EQ(1U, log.count(3, "ORB (orbId=0x12340002) can not handle slot 0 for NSID_NODE", kSource));
    EXPECT_EQ(TerminationId(0x1234, 5, 0), addressOf(TreflectOrbId(0x1234, 5, NSID_UNDEF), place(1, 2)));
    EXPECT_EQ(1U, log.count(3, "ORB (orbId=0x12340500) can not handle namespace NSID_UNDEF", kSource));
    EXPECT_EQ(2U, log.lines().size());
}

TEST_F(AddressingTest, AddressesBecomeIdentifiers) {
    EXPECT_EQ(TreflectOrbId(0x1234, 5, 1), orbIdOf(TerminationId(0x1234, 5, 1), place(1, 1), kOrbId));
    EXPECT_EQ(TreflectOrbId(0x1234, 5, 1), orbIdOf(TerminationId(0x1234, 5, 2), place(1, 1), kOrbId));
    EXPECT_EQ(TreflectOrbId(0x1234, 5, NSID_NODE), orbIdOf(TerminationId(0x1234, 5, 3), place(1, 1), kOrbId));
    EXPECT_EQ(TreflectOrbId(0xFFFF, 0xFF, 0U), orbIdOf(TerminationId(0xFFFFFFFFU), place(1, 1), kOrbId));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(TreflectOrbId(0x1234, 5, 0U), orbIdOf(TerminationId(0x1234, 5, 4), place(1, 1), kOrbId));
    EXPECT_EQ(1U, log.count(6, "ORB (orbId=0xAB) can not handle group id TRSPCTRL", kSource));
    EXPECT_EQ(TreflectOrbId(), orbIdOf(TerminationId(), place(1, 1), kOrbId));
    EXPECT_EQ(1U, log.count(3, "ORB (orbId=0xAB) can not handle group id GRPID_UNDEF", kSource));
}

TEST_F(AddressingTest, TheSlotOfAnAuxiliaryUnitIsHiddenInTheUnitsNamespaceOnly) {
    EXPECT_EQ(TreflectOrbId(0x1234, 0, 1), orbIdOf(TerminationId(0x1234, 6, 2), place(1, 1), kOrbId));
    EXPECT_EQ(TreflectOrbId(0x1234, 0, 1), orbIdOf(TerminationId(0x1234, 7, 1), place(7, 1), kOrbId));
    EXPECT_EQ(TreflectOrbId(0x1234, 6, NSID_NODE), orbIdOf(TerminationId(0x1234, 6, 3), place(1, 1), kOrbId));
    EXPECT_EQ(TreflectOrbId(0x1234, 6, 0U), orbIdOf(TerminationId(0x1234, 6, 9), place(1, 1), kOrbId));
}

class BrokerIdentityTest : public Testing::BrokerTest {};

TEST_F(BrokerIdentityTest, TheBrokerKnowsItselfUnderItsAddress) {
    EXPECT_EQ(orb.convertId(orb.termId()), orb.orbId());
    EXPECT_EQ(orb.termId(), orb.convertId(orb.orbId()));
    EXPECT_EQ(orb.termId().nameId(), orb.orbId().nameId());
    EXPECT_EQ(1U, static_cast<unsigned>(orb.orbId().namespaceId()));
    EXPECT_EQ(orb.termId().groupId(), orb.getMyGroup(1));
    EXPECT_EQ(1U, orb.getNamespaceFromGroup(orb.termId().groupId()));
    EXPECT_EQ(2U, orb.getNamespaceFromGroup(orb.getMyGroup(NSID_NODE)));
}

TEST_F(BrokerIdentityTest, ReportsCarryTheBrokersIdentifier) {
    orb.getMyGroup(NSID_UNDEF);
    orb.getNamespaceFromGroup(Transport::GRPID_UNDEF);
    orb.convertId(TerminationId(0x1234, 5, 4));
    const std::string who = LogMakeString("ORB (orbId=0x%X) can not handle ", orb.orbId().value());
    EXPECT_EQ(1U, log.count(3, who + "namespace id NSID_UNDEF", kSource));
    EXPECT_EQ(1U, log.count(3, who + "group id GRPID_UNDEF", kSource));
    EXPECT_EQ(1U, log.count(6, who + "group id TRSPCTRL", kSource));
}

SCENARIO(brokerOnAnAuxiliaryUnit) {
    Transport::FakeLink::install();
    Testing::LogCapture log;
    const TreflectORB &orb = *TreflectORB::getInstance(1);
    SCENARIO_CHECK(orb.termId() == TerminationId(orb.termId().nameId(), 4, 2));
    SCENARIO_CHECK(orb.orbId() == TreflectOrbId(static_cast<unsigned short>(orb.termId().nameId()), 0, 1));
    SCENARIO_CHECK(orb.convertId(orb.orbId()) == orb.termId());
    SCENARIO_CHECK(1 == log.count(5,
                                  LogMakeString("ORB created for actor fan with OrbId 0x%X, TerminationId 0x%08X",
                                                orb.orbId().value(), orb.termId().value()),
                                  kSource));
}

TEST_F(AddressingTest, ABrokerTakesItsPlaceFromTheEnvironment) {
    const Testing::ProcessResult result =
        Testing::runScenario("brokerOnAnAuxiliaryUnit", {"REFLECTORB_SLOT=4", "REFLECTORB_ACTIVE_SLOT=1",
                                                         "REFLECTORB_AXU_SLOTS=4,9", "REFLECTORB_ACTOR=fan"});
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

} // namespace
