#pragma once

#include "platform/Export.h"
#include "threads/DebugPermission_p.h"
#include "threads/HandlerState.h"
#include "threads/HandlerThreads_p.h"

/** The one object of the process, made on first use, never destroyed; null if memory is short. */
HandlerThreadsType *handlerThreads();

/** What the broker offers of it; every call concerns the calling thread. Without the object nothing happens. */
namespace HandlerState {

void enterHandlerState(bool withPermission);
void leaveHandlerState(bool withPermission);
void checkHandlerState();
bool isHandlerThread();
void getRunPermission();
void releaseRunPermission();
bool hasRunPermission();
unsigned getRunPermissionCount();
unsigned long getRunPermissionOwner();
/** Whether a thread without ReleaseHook has the permission or waits for it, a snapshot. */
bool hasOtherRunPermissionClaims();
/** Gives up all levels, for a thread that is about to end the process or to join others. */
void releaseRunPermissionWhileHeld();
/** Puts back silently the level that a nested holder gave up before it blocked. */
void restoreRunPermissionLevel();

} // namespace HandlerState
