#pragma once
// Registered window messages and the dialog's posted-message queue. A
// message is a number registered under a name (the same name always answers
// the same number); other threads post it to the dialog without waiting and
// the dialog's own thread takes it from the queue and handles it.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "platform/win_types.h"

// The number of the message registered under `name`, registering it on the
// first call: 0xC000 and up, as the window system numbers them.
UINT registerWindowMessage(const std::wstring& name);

class PostedMessages {
  public:
    // Queues the message and returns at once. Posted messages carry no data:
    // the receiver shows whatever is stored when it handles one, so a message
    // that is already waiting is not queued a second time.
    void post(UINT message);
    // The oldest waiting message, if any, without waiting.
    std::optional<UINT> take();
    // Waits up to `timeoutMs` of the host clock for a message to arrive.
    bool waitFor(DWORD timeoutMs);
    std::size_t pending() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<UINT> queue_;
};
