#pragma once

#include "objects/REFLECT_object.h"
#include "objects/REFLECT_serverObject.h"
#include "rmi/CallHelper.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/StreamOperators.h"

#include <cstddef>

/** What the operations of all interfaces have in common. */
namespace Interface {

/** One call, at either side. It has the arguments and keeps what came of it. */
class Call : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    explicit Call(const char *name) : name_(name) {}

    const char *operationName() const override { return name_; }
    void insertParameters(TipprmiSequence<TipprmiAny> &) const override {}
    void marshallIn(TipprmiStream &) const override {}
    void unmarshallOut(TipprmiStream &) const override {}
    /** The stub does not keep the exception that heads the answer, so it is read again. Derived classes go on. */
    void evaluateResponse(TipprmiStream &response) const override {
        if (response.hasUnmarshallingFailed()) {
            raised.setExceptionType(TipprmiGeneralException::getExceptionClassType());
        } else if (response.getDataSize() != 0) { // a call without answer has none
            response.rewind();
            response >> raised;
        }
    }
    /** Result and out parameters, also after an exception: they keep the reader in step. */
    virtual void writeAnswer(TipprmiStream &) const {}

    mutable TipprmiExceptionContainer raised;

private:
    const char *const name_;
};

template <class T>
void append(TipprmiSequence<TipprmiAny> &sequence, const T &value) {
    TipprmiAny any;
    any << value;
    sequence.push_back(any);
}

/** Calls the object directly if it is here and of the class; any other is called as a remote one, and refuses. */
template <class Server>
Server *here(const TipprmiObjectClient &client) {
    return dynamic_cast<Server *>(client.getServer());
}

inline void send(const TipprmiObjectClient &client, TreflectServerObject *local, const Call &call, unsigned cc,
                 unsigned mc, TipprmiExceptionContainer *raised) {
    if (TreflectObjectStub *stub = client.getStub_()) {
        ClientCallHelper(call, call, call, *stub, local, cc, mc, true);
    } else {
        call.raised.setExceptionType(TipprmiGeneralException::getExceptionClassType());
    }
    if (raised != nullptr) {
        *raised = call.raised;
    }
}

/** What a dispatch() was given. */
struct Request {
    bool transaction;
    unsigned cc;
    unsigned mc;
    TipprmiStream &arguments;
    TipprmiStream &response;

    /** Whether all arguments were there. */
    bool complete() const {
        if (arguments.hasUnmarshallingFailed()) {
            arguments.printUnmarshallError(cc, mc);
            return false;
        }
        return true;
    }
    /** By way of the client, so that observers are told as for a call of this process. */
    bool answer(TreflectServerObject &server, const Call &call) const {
        const TipprmiObjectClient *const client = server.getClient();
        TreflectObjectStub *const stub = client != nullptr ? client->getStub_() : nullptr;
        if (stub == nullptr) {
            return false;
        }
        ClientCallHelper(call, call, call, *stub, &server, cc, mc, transaction);
        if (call.raised.getExceptionType() != 0) {
            response << call.raised;
        } else {
            server.prepareResponseStream_(response);
        }
        call.writeAnswer(response);
        return true;
    }
};

/** Reads an attribute: the hook of its get operation. */
template <auto Getter>
class Read;

template <class Server, class T, T (Server::*Getter)(TipprmiExceptionContainer &)>
class Read<Getter> : public Call {
public:
    Read(const char *name, Server *server) : Call(name), server_(server) {}

    void invoke() const override { value = (server_->*Getter)(raised); }
    void insertResult(TipprmiSequence<TipprmiAny> &sequence) const override { append(sequence, value); }
    void evaluateResponse(TipprmiStream &response) const override {
        Call::evaluateResponse(response);
        response >> value;
    }
    void writeAnswer(TipprmiStream &response) const override { response << value; }

    static T from(const TipprmiObjectClient &client, const char *name, unsigned cc, unsigned mc,
                  TipprmiExceptionContainer *raised) {
        auto *const server = here<Server>(client);
        const Read call(name, server);
        send(client, server, call, cc, mc, raised);
        return call.value;
    }

    mutable T value{};

private:
    Server *const server_;
};

/** The operations that a class answers itself. */
template <class Server>
struct Operation {
    const char *name;
    unsigned mc;
    bool (*answer)(Server &server, const Operation &operation, const Request &request);
};

template <class Server, auto Getter>
bool answerRead(Server &server, const Operation<Server> &operation, const Request &request) {
    return request.answer(server, Read<Getter>(operation.name, &server));
}

/** The entry of a method code; null if there is none. */
template <class Server, std::size_t Count>
const Operation<Server> *find(const Operation<Server> (&operations)[Count], unsigned mc) {
    for (const Operation<Server> &operation : operations) {
        if (operation.mc == mc) {
            return &operation;
        }
    }
    return nullptr;
}

} // namespace Interface
