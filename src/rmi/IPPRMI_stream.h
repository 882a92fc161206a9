#pragma once

#include "orb/ReflectMessage.h"
#include "platform/Export.h"

/**
 * The body of a message, written or read value by value; the operators stand in StreamOperators.h. The payload begins
 * with the number of data bytes (32-bit big-endian, the write position), the data follows. Writing and reading have
 * positions of their own, so what was written can be read back after rewind().
 *
 * A read past the data never fails hard: it gives zeros, is reported once, and stops the stream, which gives nothing
 * but zeros until clear() or setData(). A message that cannot grow, for want of memory or because it would be larger
 * than the transport takes, is reported and stays as it is.
 *
 * A value: copies are independent, and share their bytes until one of them writes. Messages are made through the broker
 * of namespace 1; without it, and when moved from, a stream has no buffer: reads stop, writes do nothing.
 */
class REFLECTORB_API TipprmiStream {
public:
    /** Room for head and arguments of an ordinary call. */
    static constexpr int kCallSize = 100;

    /** Room for `size` bytes of data, at least 1; it grows as needed. */
    explicit TipprmiStream(int size);
    /** Holds a copy of `size` bytes, zeros if `data` is null. */
    TipprmiStream(const void *data, int size);
    /** Over a message: emptied for writing if `clear`, else to read what the sender wrote (allocates nothing). */
    TipprmiStream(const TreflectMessage &message, bool clear);
    TipprmiStream(TreflectMessage &&message, bool clear);

    TipprmiStream(const TipprmiStream &other);
    TipprmiStream(TipprmiStream &&other) noexcept;
    TipprmiStream &operator=(const TipprmiStream &other);
    TipprmiStream &operator=(TipprmiStream &&other) noexcept;
    ~TipprmiStream() = default;

    /** Replaces the data by a copy of `size` bytes, which may be part of the stream's own; zeros if `data` is null. */
    void setData(const void *data, int size);
    void clear();
    void rewind() noexcept { optr_ = 0; }

    /** The message, for sending or inspection. After growth it is another one than the stream was made with. */
    TreflectMessage &msg();
    const TreflectMessage &msg() const noexcept { return message_; }

    bool empty() const noexcept { return getDataSize() == 0; }
    /** Null without buffer. Do not keep the result of the non-const one across a copy of the stream. */
    const unsigned char *getDataPtr() const noexcept;
    unsigned char *getDataPtr() noexcept;
    /** The write position as the message has it; in a received message it may be anything. */
    int getDataSize() const noexcept { return iptr_(); }
    /** Bytes of data that the message has room for; negative if not even the write position fits. */
    int getDataLimit() const noexcept {
        return reserved_ != 0 ? reserved_ : static_cast<int>(message_.size()) - kSizeWord;
    }
    /** Bytes that are there to be read, whether the stream is stopped or not. */
    int getRemaining() const noexcept;
    /** The next byte to be read; null without buffer. */
    const unsigned char *getReadPtr() const noexcept;
    int iptr_() const noexcept;
    void iptr_(const int &position) noexcept;

    /** Once a write was refused, the later ones are, too, until clear() or setData(): behind a gap they would be read
     * as something else. */
    TipprmiStream &marshall(const void *data, int size);
    /** `data` may be null to skip. */
    TipprmiStream &unmarshall(void *data, int size);
    /** Something that was written is not there. */
    bool hasMarshallingFailed() const noexcept { return refused_ || (reserved_ == 0 && !hasSizeWord()); }
    bool hasUnmarshallingFailed() const noexcept { return stopped_; }
    void stopUnmarshalling() noexcept { stopped_ = true; }
    /** For the reader of a whole body, with class and method code of the call. */
    void printUnmarshallError(unsigned cc, unsigned mc) const;

    /**
     * For readers that allocate by a length or a count from the message, which a peer can make up. The answer is what
     * to go on with: the number itself, also if the data is too short as long as it is modest (1 MiB, 65536 elements),
     * else 0 after the stream was stopped and the failure reported. `elementSize`: the least bytes that an element
     * takes.
     */
    int admitLength(int length);
    unsigned admitCount(unsigned count, unsigned elementSize);

protected:
    struct Reserve {
        int size;
    };
    /** Room for so many bytes, which is only taken from memory with the first write. */
    explicit TipprmiStream(Reserve reserve) noexcept : reserved_(reserve.size) {}

private:
    static constexpr int kSizeWord = 4;

    bool hasSizeWord() const noexcept { return message_.size() >= static_cast<unsigned>(kSizeWord); }
    void takeReserved(int size);

    bool checkRange() const;
    void reportRange() const;
    void failUnmarshalling(int size);
    bool allocate_(int size);
    bool inOwnData(const void *data) const noexcept;

    int optr_ = 0;
    TreflectMessage message_;
    bool stopped_ = false;
    bool refused_ = false; // a write found no room
    int reserved_ = 0;     // not 0: there is no message yet
};
