#include "objects/HandlePool_p.h"

#include "objects/REFLECT_object.h"
#include "observation/REFLECT_ObserverClient.h"
#include "support/BrokerTest.h"
#include "support/Concurrency.h"
#include "support/HeapProbe.h"
#include "support/Scenario.h"
#include "threads/HandlerState.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

namespace {

/** A handle that is larger than others. */
class Larger : public TreflectObject {
public:
    void *more[4] = {};
};

class HandlePoolTest : public Testing::BrokerTest {
protected:
    TreflectHandlerState state{true};
};

/** Takes cells until one comes from a new block. */
class Filled {
public:
    Filled() {
        const unsigned before = HandlePool::blocks();
        while (HandlePool::blocks() == before) {
            take();
        }
    }
    ~Filled() {
        for (void *cell : cells_) {
            HandlePool::giveBack(cell);
        }
    }
    Filled(const Filled &) = delete;
    Filled &operator=(const Filled &) = delete;
    void take() { cells_.push_back(HandlePool::take()); }
    const std::vector<void *> &cells() const { return cells_; }

private:
    std::vector<void *> cells_;
};

TEST_F(HandlePoolTest, ABlockHolds256Handles) {
    Filled pool;
    const unsigned blocks = HandlePool::blocks();
    const std::size_t first = pool.cells().size() - 1;
    for (unsigned i = 1; i < 256; ++i) {
        pool.take();
    }
    EXPECT_EQ(blocks, HandlePool::blocks());
    pool.take();
    EXPECT_EQ(blocks + 1, HandlePool::blocks()) << "the 257th needs another one";
    std::vector<char *> cells;
    for (std::size_t i = first; i < pool.cells().size(); ++i) {
        cells.push_back(static_cast<char *>(pool.cells()[i]));
        std::memset(cells.back(), 0x5A, sizeof(TreflectObject)); // nobody else's memory
    }
    std::sort(cells.begin(), cells.end());
    for (std::size_t i = 1; i < cells.size(); ++i) {
        EXPECT_GE(cells[i] - cells[i - 1], static_cast<std::ptrdiff_t>(sizeof(TreflectObject)));
    }
    // What the pool writes into cells that are free again does not touch their neighbours.
    for (std::size_t i = 0; i < cells.size(); i += 2) {
        HandlePool::giveBack(cells[i]);
    }
    for (std::size_t i = 1; i < cells.size(); i += 2) {
        EXPECT_EQ(sizeof(TreflectObject), static_cast<std::size_t>(std::count(
                                              cells[i], cells[i] + sizeof(TreflectObject), static_cast<char>(0x5A))));
    }
    for (std::size_t i = 0; i < cells.size(); i += 2) {
        HandlePool::take(); // which `pool` gives back
    }
}

SCENARIO(handlesOfAFreshProcess) {
    std::vector<std::unique_ptr<TreflectObject>> handles;
    SCENARIO_CHECK(HandlePool::blocks() == 0);
    for (unsigned round = 0; round < 2; ++round) {
        for (unsigned count = 1; count <= 257; ++count) {
            handles.push_back(std::make_unique<TreflectObject>());
            SCENARIO_CHECK(HandlePool::blocks() == (round == 0 && count <= 256 ? 1U : 2U));
        }
        handles.clear();
    }
}

TEST_F(HandlePoolTest, TheFirst257HandlesOfAProcessTakeTwoBlocks) {
    const Testing::ProcessResult result = Testing::runScenario("handlesOfAFreshProcess");
    EXPECT_EQ(0, result.exitStatus) << result.output;
}

TEST_F(HandlePoolTest, TheCellThatWasFreedLastIsUsedNext) {
    auto *const one = new TreflectObject;
    auto *const two = new TreflectObject;
    const void *const cell = one;
    delete one;
    auto *const three = new TreflectObject;
    EXPECT_EQ(cell, three);
    const void *const other = two;
    delete three;
    delete two;
    TreflectObject *const observer = new TreflectObserverClient;
    EXPECT_EQ(other, observer) << "handles of observers come from the same pool";
    TreflectObject *const object = new TreflectObject;
    EXPECT_EQ(cell, object);
    delete observer; // by way of the base
    const TreflectObserverClient *const again = new TreflectObserverClient;
    EXPECT_EQ(other, again);
    delete again;
    delete object;
}

TEST_F(HandlePoolTest, LargerHandlesComeFromTheHeap) {
    auto *const handle = new TreflectObject;
    const void *const cell = handle;
    delete handle;
    TreflectObject *const larger = new Larger;
    EXPECT_NE(cell, larger);
    delete larger;
    TreflectObject *const next = new TreflectObject;
    EXPECT_EQ(cell, next) << "nothing was taken, and nothing put there";
    delete next;
    TreflectObject::operator delete(nullptr, sizeof(TreflectObject));
    void *const taken = HandlePool::take();
    EXPECT_EQ(cell, taken) << "null is not a cell";
    HandlePool::giveBack(taken);
}

/** As one does that is cancelled while it looks for its object. */
TEST_F(HandlePoolTest, AConstructorThatThrowsGivesItsCellBack) {
    class Refusing : public TreflectObject {
    public:
        Refusing() { throw 1; }
    };
    class LargerRefusing : public Larger {
    public:
        LargerRefusing() { throw 1; }
    };
    auto *const handle = new TreflectObject;
    const void *const cell = handle;
    delete handle;
    const auto takesTheCell = [cell] {
        const std::unique_ptr<TreflectObject> next(new TreflectObject);
        return next.get() == cell;
    };
    EXPECT_THROW(new Refusing, int);
    EXPECT_TRUE(takesTheCell());
    EXPECT_THROW(new (std::nothrow) Refusing, int);
    EXPECT_TRUE(takesTheCell());
    EXPECT_THROW(new LargerRefusing, int);
    EXPECT_THROW(new (std::nothrow) LargerRefusing, int);
    EXPECT_TRUE(takesTheCell()) << "what came from the heap went there";
}

TEST_F(HandlePoolTest, KnowsItsCells) {
    Filled pool;
    pool.take();
    for (void *cell : pool.cells()) {
        EXPECT_TRUE(HandlePool::owns(cell));
    }
    const auto other = std::make_unique<Larger>();
    EXPECT_FALSE(HandlePool::owns(other.get()));
    EXPECT_FALSE(HandlePool::owns(&pool));
    EXPECT_FALSE(HandlePool::owns(nullptr));
}

TEST_F(HandlePoolTest, AHandleCanBeMadeInPlace) {
    const unsigned blocks = HandlePool::blocks();
    alignas(TreflectObject) unsigned char place[sizeof(TreflectObject)];
    auto *const handle = new (place) TreflectObject;
    EXPECT_EQ(static_cast<void *>(place), handle);
    EXPECT_FALSE(handle->isConnected());
    handle->~TreflectObject();
    EXPECT_EQ(blocks, HandlePool::blocks());
}

TEST_F(HandlePoolTest, HandlesOfTheFirstBlockCostNoMemory) {
    Filled pool;
    delete new TreflectObject; // what the thread needs once
    const Testing::HeapProbe probe;
    for (int i = 0; i < 100; ++i) {
        delete new TreflectObject;
    }
    EXPECT_EQ(0U, probe.allocations());
}

TEST_F(HandlePoolTest, WithoutMemoryThereIsNoHandle) {
    Filled pool;
    for (unsigned i = 1; i < 256; ++i) {
        pool.take();
    }
    const unsigned blocks = HandlePool::blocks();
    {
        const Testing::FailingHeap heap;
        EXPECT_EQ(nullptr, new (std::nothrow) TreflectObject);
    }
    EXPECT_EQ(blocks, HandlePool::blocks());
    const std::unique_ptr<TreflectObject> handle(new (std::nothrow) TreflectObject);
    EXPECT_NE(nullptr, handle);
}

TEST_F(HandlePoolTest, ThreadsNeverGetTheSameCell) {
    constexpr unsigned kHeld = 60;
    std::atomic<int> wrong{0};
    const auto body = [&wrong] {
        std::vector<unsigned *> cells;
        for (unsigned round = 0; round < 2000; ++round) {
            auto *const cell = static_cast<unsigned *>(HandlePool::take());
            *cell = round;
            cells.push_back(cell);
            if (cells.size() == kHeld) {
                for (unsigned i = 0; i < kHeld; ++i) {
                    wrong += *cells[i] != round + 1 - kHeld + i ? 1 : 0;
                    HandlePool::giveBack(cells[i]);
                }
                cells.clear();
            }
        }
        for (unsigned *cell : cells) {
            HandlePool::giveBack(cell);
        }
    };
    {
        Testing::TestThread one(body);
        Testing::TestThread two(body);
        Testing::TestThread three(body);
    }
    EXPECT_EQ(0, wrong);
}

} // namespace
