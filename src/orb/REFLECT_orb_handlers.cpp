#include "orb/REFLECT_orb.h"
#include "threads/HandlerThreadsType_p.h"

void TreflectORB::enterHandlerState(bool withPermission) {
    HandlerState::enterHandlerState(withPermission);
}

void TreflectORB::leaveHandlerState(bool withPermission) {
    HandlerState::leaveHandlerState(withPermission);
}

void TreflectORB::checkHandlerState() {
    HandlerState::checkHandlerState();
}

bool TreflectORB::isHandlerThread() {
    return HandlerState::isHandlerThread();
}

void TreflectORB::getRunPermission() {
    HandlerState::getRunPermission();
}

void TreflectORB::releaseRunPermission() {
    HandlerState::releaseRunPermission();
}

bool TreflectORB::hasRunPermission() {
    return HandlerState::hasRunPermission();
}

unsigned long TreflectORB::getRunPermissionCount() {
    return HandlerState::getRunPermissionCount();
}

unsigned long TreflectORB::getRunPermissionOwner() {
    return HandlerState::getRunPermissionOwner();
}

HandlerThreadsType *TreflectORB::handlerThreads() {
    return ::handlerThreads();
}
