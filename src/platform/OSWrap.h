#pragma once

#include "platform/Cancellation.h"
#include "platform/ConditionVar.h"
#include "platform/Lock.h"
#include "platform/Mutex.h"
#include "platform/NetNumVar.h"
#include "platform/SmartPointer.h"
#include "platform/Thread.h"
#include "platform/TimeSpec.h"
#include "platform/UniqueIdGen.h"
