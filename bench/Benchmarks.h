#pragma once

#include "Result.h"

namespace Bench {

Result transport100();
Result transport1k();
Result transport64k();
Result transport1m();
Result transportOneWay();
Result stream();
Result permission();
Result permissionLocked();
Result permission8();
Result idle();
Result callNull();
Result callEcho1k();
Result callEcho64k();
Result callConcurrent();
Result callOneWay();
Result callNested();
Result locateKnown2();
Result locateKnown10();
Result locateKnown30();
Result locateUnknown2();
Result locateUnknown10();
Result locateUnknown30();
Result stubMemory();
Result firstCall();
Result getChild5Local();
Result getChild5Remote();
Result meta();
Result attributeGet();
Result handleCopy();
Result objectLocal();
Result objectRemote();
Result locateHere();
Result objectsPerMib();
Result creations1();
Result creations10();
Result creations30();
Result observedLocal();
Result observedRemote();
Result bereaved2();
Result bereaved10();
Result bereaved30();
Result existing10000();

} // namespace Bench
