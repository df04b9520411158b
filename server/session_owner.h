#pragma once
// What a client session needs of the server controller that created it.
#include "platform/sync.h"

class SessionOwner {
  public:
    virtual ~SessionOwner() = default;
    // Asks the server thread to drain the sessions and reset the unit; only
    // sets a flag.
    virtual void requestRestart() = 0;
    // The controller's session-list lock (m_tovelLock), taken by a session
    // around its command-line control request.
    virtual host::CriticalSection& tovelLock() = 0;
};
