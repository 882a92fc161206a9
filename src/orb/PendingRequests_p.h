#pragma once

#include "orb/OngoingRequest_p.h"

#include <array>

/**
 * The requests of a broker that wait for their responses, by transaction id. A request is in one table at most, and
 * entering it costs no memory. Not synchronised by itself.
 */
class PendingRequests {
public:
    bool contains(unsigned id) const noexcept { return *placeOf(id) != nullptr; }
    /** The id must be free. */
    void add(unsigned id, OngoingRequest &request) noexcept {
        request.pendingId_ = id;
        OngoingRequest *&first = rows_[rowOf(id)];
        request.nextPending_ = first;
        first = &request;
    }
    /** Null if there is none. */
    OngoingRequest *take(unsigned id) noexcept { return unlink(placeOf(id)); }
    /** Any one, and its id; null if there is none. */
    OngoingRequest *takeAny(unsigned &id) noexcept {
        OngoingRequest *const found = takeFirst([](const OngoingRequest &) { return true; });
        id = found != nullptr ? found->pendingId_ : 0;
        return found;
    }
    /** Takes this one out; false if it is not there under that id. */
    bool takeBack(unsigned id, const OngoingRequest &request) noexcept {
        OngoingRequest **const place = placeOf(id);
        return *place == &request && unlink(place) != nullptr;
    }
    /** One for which `matches(request)` holds; null if there is none. */
    template <class Matches>
    OngoingRequest *takeFirst(const Matches &matches) {
        for (OngoingRequest *&first : rows_) {
            for (OngoingRequest **place = &first; *place != nullptr; place = &(*place)->nextPending_) {
                if (matches(**place)) {
                    return unlink(place);
                }
            }
        }
        return nullptr;
    }

private:
    static constexpr unsigned kRows = 64;

    // Ids of one broker differ in their upper bits, which count up.
    static constexpr unsigned rowOf(unsigned id) noexcept { return (id >> 20) % kRows; }
    OngoingRequest *const *placeOf(unsigned id) const noexcept {
        OngoingRequest *const *place = &rows_[rowOf(id)];
        while (*place != nullptr && (*place)->pendingId_ != id) {
            place = &(*place)->nextPending_;
        }
        return place;
    }
    OngoingRequest **placeOf(unsigned id) noexcept {
        return const_cast<OngoingRequest **>(static_cast<const PendingRequests *>(this)->placeOf(id));
    }
    static OngoingRequest *unlink(OngoingRequest **place) noexcept {
        OngoingRequest *const found = *place;
        if (found != nullptr) {
            *place = found->nextPending_;
            found->nextPending_ = nullptr;
        }
        return found;
    }

    std::array<OngoingRequest *, kRows> rows_{};
};
