#pragma once

#include "rmi/CallHelper.h"
#include "rmi/IPPRMI_exception.h"
#include "rmi/IPPRMI_objectClient.h"

#include <tuple>
#include <type_traits>
#include <utility>

// Code that is generated for an interface describes each operation once, as a TipprmiMethod. The client's function and
// the skeleton's dispatch() are one call each of that description, so that both sides agree on what a message holds.

// Kinds of parameters. Argument is how the functions of client and skeleton take it.

template <class T>
struct TipprmiIn {
    using Value = T;
    using Argument = std::conditional_t<std::is_arithmetic_v<T> || std::is_enum_v<T>, T, const T &>;
    using Held = const T &;

    static void start(const T &) {}
    static void writeRequest(TipprmiStream &request, const T &value) { request << value; }
    static void readRequest(TipprmiStream &request, T &value) { request >> value; }
    static void writeResponse(TipprmiStream &, const T &) {}
    static void checkResponse(TipprmiStream &, const T &) {}
    static void readResponse(TipprmiStream &, const T &) {}
    static const TipprmiExceptionContainer *raised(const T &) { return nullptr; }
    static void show(TipprmiSequence<TipprmiAny> &parameters, const T &value) {
        TipprmiAny any;
        any << value;
        parameters.push_back(any);
    }
};

/** Keeps its value if the call is forbidden by an observer. */
template <class T>
struct TipprmiInOut : TipprmiIn<T> {
    using Argument = T &;
    using Held = T &;

    static void writeResponse(TipprmiStream &response, const T &value) { response << value; }
    static void readResponse(TipprmiStream &response, T &value) { response >> value; }
};

template <class T>
struct TipprmiOut : TipprmiInOut<T> {
    static void start(T &value) { value = T{}; }
    static void writeRequest(TipprmiStream &, const T &) {}
    static void readRequest(TipprmiStream &, T &) {}
};

/**
 * The last parameter of an operation that raises exceptions of these classes: it holds what was raised, the general
 * exception, with code 0, if the call failed, or nothing. An answer whose exception cannot be read is a failed call, as
 * is one with a general exception, whatever its code. An exception of a class that is not listed is left to the caller.
 */
template <class... Exceptions>
struct TipprmiRaises {
    using Value = TipprmiExceptionContainer;
    using Argument = TipprmiExceptionContainer &;
    using Held = TipprmiExceptionContainer &;

    static void start(TipprmiExceptionContainer &container) { container = TipprmiExceptionContainer(); }
    static void writeRequest(TipprmiStream &, const TipprmiExceptionContainer &) {}
    static void readRequest(TipprmiStream &, TipprmiExceptionContainer &) {}
    static void writeResponse(TipprmiStream &, const TipprmiExceptionContainer &) {}
    static void readResponse(TipprmiStream &, TipprmiExceptionContainer &) {}
    static const TipprmiExceptionContainer *raised(const TipprmiExceptionContainer &container) { return &container; }
    static void show(TipprmiSequence<TipprmiAny> &, const TipprmiExceptionContainer &) {}

    /** Stubs read the container and do not keep it. */
    static void checkResponse(TipprmiStream &response, TipprmiExceptionContainer &container) {
        if (!response.hasUnmarshallingFailed()) {
            response.rewind();
            response >> container;
            if ((isIncomplete<Exceptions>(container) || ...)) {
                response.stopUnmarshalling();
            }
        }
        if (response.hasUnmarshallingFailed()) {
            container.raise(TipprmiGeneralException());
        }
    }

private:
    template <class Exception>
    static bool isIncomplete(TipprmiExceptionContainer &container) {
        Exception exception{};
        return container.getExceptionType() == Exception::getExceptionClassType() && !container.holds(exception);
    }
};

/** What a function returns: like an out parameter, in front of those. */
template <class T>
struct TipprmiResult {
    T value{};

    template <class Function>
    void take(const Function &function) {
        value = function();
    }
    T give() { return std::move(value); }
    void write(TipprmiStream &response) const { response << value; }
    void read(TipprmiStream &response) { response >> value; }
    void show(TipprmiSequence<TipprmiAny> &parameters) const { TipprmiIn<T>::show(parameters, value); }
};

template <>
struct TipprmiResult<void> {
    template <class Function>
    void take(const Function &function) {
        function();
    }
    void give() {}
    void write(TipprmiStream &) const {}
    void read(TipprmiStream &) {}
    void show(TipprmiSequence<TipprmiAny> &parameters) const { parameters.push_back(TipprmiAny()); }
};

/** An operation: what it is called by, and the skeleton's function. */
template <class Server, class Result, class... Parameters>
struct TipprmiMethod {
    const char *name;
    unsigned cc;
    unsigned mc;
    Result (Server::*function)(typename Parameters::Argument...);
    bool transaction = true; // false: one-way, without results

    /** For the client's function. With the run permission, which is given up while the call waits. Failed and forbidden
     *  calls give zeros. */
    Result call(const TipprmiObjectClient &client, typename Parameters::Argument... arguments) const {
        // An object of another class is called as a remote one, and refuses.
        auto *const server = dynamic_cast<Server *>(client.getServer());
        Call hook(*this, server, arguments...);
        if (TreflectObjectStub *stub = client.getStub_()) {
            ClientCallHelper(hook, hook, hook, *stub, server, cc, mc, transaction);
        } else { // there was no memory for one: a failed call
            TipprmiAny response;
            response.stopUnmarshalling();
            hook.evaluateResponse(response);
            hook.unmarshallOut(response);
        }
        return hook.result.give();
    }

    /** For dispatch(); observers are told as for a call of this process. False if arguments are missing: the method
     *  does not run then. */
    bool answer(Server &server, TipprmiStream &request, TipprmiStream &response) const {
        std::tuple<typename Parameters::Value...> values{};
        std::apply([&request](auto &...value) { (Parameters::readRequest(request, value), ...); }, values);
        if (request.hasUnmarshallingFailed()) {
            request.printUnmarshallError(cc, mc);
            return false;
        }
        const TipprmiObjectClient *const client = server.getClient();
        TreflectObjectStub *const stub = client != nullptr ? client->getStub_() : nullptr;
        if (stub == nullptr) {
            return false;
        }
        std::apply([&](auto &...value) { answer(server, *stub, response, value...); }, values);
        return true;
    }

private:
    void answer(Server &server, TreflectObjectStub &stub, TipprmiStream &response,
                typename Parameters::Held... arguments) const {
        Call hook(*this, &server, arguments...);
        ClientCallHelper(hook, hook, hook, stub, &server, cc, mc, transaction);
        const TipprmiExceptionContainer *raised = nullptr;
        ((raised = raised == nullptr ? Parameters::raised(arguments) : raised), ...);
        if (raised != nullptr && raised->getExceptionType() != 0) {
            response << *raised; // of this call only: the skeleton's own container stays as it is
        } else {
            server.prepareResponseStream_(response);
        }
        hook.result.write(response);
        (Parameters::writeResponse(response, arguments), ...);
    }

    class Call : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
    public:
        Call(const TipprmiMethod &method, Server *server, typename Parameters::Held... arguments)
            : method_(method), server_(server), arguments_(arguments...) {
            (Parameters::start(arguments), ...);
        }

        void invoke() const override {
            result.take([this] {
                return std::apply([this](auto &...argument) { return (server_->*method_.function)(argument...); },
                                  arguments_);
            });
        }
        void insertParameters(TipprmiSequence<TipprmiAny> &sequence) const override {
            each([&sequence](auto &...argument) { (Parameters::show(sequence, argument), ...); });
        }
        void insertResult(TipprmiSequence<TipprmiAny> &sequence) const override {
            result.show(sequence);
            insertParameters(sequence);
        }
        const char *operationName() const override { return method_.name; }
        void marshallIn(TipprmiStream &request) const override {
            each([&request](auto &...argument) { (Parameters::writeRequest(request, argument), ...); });
        }
        void evaluateResponse(TipprmiStream &response) const override {
            if (method_.transaction) {
                each([&response](auto &...argument) { (Parameters::checkResponse(response, argument), ...); });
                result.read(response);
            }
        }
        void unmarshallOut(TipprmiStream &response) const override {
            if (method_.transaction) {
                each([&response](auto &...argument) { (Parameters::readResponse(response, argument), ...); });
            }
        }

        mutable TipprmiResult<Result> result;

    private:
        template <class Function>
        void each(const Function &visit) const {
            std::apply(visit, arguments_);
        }

        const TipprmiMethod &method_;
        Server *const server_; // null if the call is sent
        const std::tuple<typename Parameters::Held...> arguments_;
    };
};
