#pragma once

#include "orb/REFLECT_orb.h"

/** What the creation and the deletion of objects differ in. */
struct TreflectORB::Event {
    TreflectMessage::type_t notification;
    TreflectMessage::type_t subscription;
    TreflectMessage::type_t endOfSubscription;
    std::vector<TreflectObserver *> MetaData::*observers;
    unsigned MetaData::*observersToCome;
    std::set<TreflectOrbId> MetaData::*remote;
    const std::unique_ptr<TreflectMissedOrbs> TreflectORB::*missed;
};
