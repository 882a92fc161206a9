#pragma once

#include "objects/REFLECT_serverObject.h"

#include <list>
#include <string>

namespace Bench {

/** A reflective object with the attribute "number", as a compiler of interfaces would make it. */
class Node : public TreflectServerObject {
public:
    static constexpr unsigned kClass = 0x42454E54;

    explicit Node(const std::string &name, const TreflectObject *parent = nullptr, const char *oid = nullptr);
    unsigned getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned> getServerClassIdSeq() const override;
    using TreflectServerObject::dispatch;
    bool dispatch(bool transaction, unsigned cc, unsigned mc, TipprmiStream &request, TipprmiStream &response) override;

    unsigned number() { return 42; }
};

/** "one" below "two" below ... below a root with that identifier. */
class Chain {
public:
    static constexpr const char *kNames[] = {"one", "two", "three", "four", "five"};

    explicit Chain(const std::string &name);
    ~Chain();
    Chain(const Chain &) = delete;
    Chain &operator=(const Chain &) = delete;

private:
    std::list<Node> nodes_;
};

/** The actor of a Chain. */
int serveTree(const std::string &name);

} // namespace Bench
