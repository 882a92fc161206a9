#pragma once

#include "platform/AddressedMessage.h"
#include "platform/IdInfo.h"
#include "platform/Termination.h"
#include "platform/TerminationId.h"
#include "platform/TransportLayer.h"
