#pragma once

class TreflectObject;
class TreflectObserver;

/** Tells an observer that the object was created or deleted. Application code, so it runs without the run permission;
 *  whatever it does with that, it is as before when it returns, and so is the thread. The object must not be one that
 *  others may change meanwhile. */
void tellObserver(TreflectObserver &observer, const TreflectObject &object);
