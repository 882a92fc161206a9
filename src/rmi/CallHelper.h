#pragma once

#include "platform/Export.h"
#include "rmi/IPPRMI_sequence.h"

class TreflectObjectStub;
class TreflectServerObject;

/** What one method adds to the way every call goes; generated code has a class for each method, which keeps arguments
 *  and results. */
class REFLECTORB_API ClientCallHookBaseV {
public:
    virtual ~ClientCallHookBaseV();
    /** Calls the object of this process. */
    virtual void invoke() const = 0;
    /** Appends the parameters, for observers. */
    virtual void insertParameters(TipprmiSequence<TipprmiAny> &sequence) const = 0;
    /** Appends the result, or an empty place for it, and the parameters as they are after the call. */
    virtual void insertResult(TipprmiSequence<TipprmiAny> &sequence) const;
    /** For diagnostics. */
    virtual const char *operationName() const = 0;
    /** Reads the result. The exception container was read before that; if it told of a failed call, the stream is
     *  stopped and gives zeros. Who wants another exception rewinds and reads the container again. */
    virtual void evaluateResponse(TipprmiStream &response) const;
};

/** Writes the arguments of a call to another actor. */
class InParamHook {
public:
    virtual void marshallIn(TipprmiStream &request) const = 0;

protected:
    ~InParamHook() = default;
};

/** Reads the out parameters, which follow the result: after ClientCallHookBaseV::evaluateResponse(), also of one-way
 *  calls, whose response is empty, and of failed ones, whose response gives zeros. */
class OutParamHook {
public:
    virtual void unmarshallOut(TipprmiStream &response) const = 0;

protected:
    ~OutParamHook() = default;
};

/**
 * The way of every call of generated code. With the run permission, which is given up while the call waits. `local` is
 * the object itself if it is in this process and of the class: it is called directly, after its observers of the method
 * were told, one of which may forbid the call; observers after the call are told then. Else the call is sent by the
 * stub and, if it is a transaction, waits for its answer; failures read as zeros.
 */
REFLECTORB_API void ClientCallHelper(const ClientCallHookBaseV &hook, const InParamHook &in, const OutParamHook &out,
                                     TreflectObjectStub &stub, TreflectServerObject *local, unsigned cc, unsigned mc,
                                     bool transaction);
