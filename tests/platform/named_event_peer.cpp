// The other process of the named-event test: on the unit root given as its
// argument, waits for "PeerAsk" and answers through "PeerAnswer" with the
// ask's event data plus one. Exit codes: 0 answered, 1 no ask within 10 s,
// 2 bad arguments, 3 the events were not the test's (not already held).
#include <cstdio>

#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/sync.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: named_event_peer UNIT-ROOT\n");
        return 2;
    }
    host::setUnitRoot(argv[1]);
    const HANDLE ask = host::CreateEventW(false, false, L"PeerAsk");
    const bool askHeld = host::GetLastError() == ERROR_ALREADY_EXISTS;
    const HANDLE answer = host::CreateEventW(false, false, L"PEERANSWER");
    const bool answerHeld = host::GetLastError() == ERROR_ALREADY_EXISTS;
    if (!askHeld || !answerHeld) return 3;
    if (host::WaitForSingleObject(ask, 10000) != WAIT_OBJECT_0) return 1;
    host::SetEventData(answer, host::GetEventData(ask) + 1);
    host::SetEvent(answer);
    host::CloseHandle(ask);
    host::CloseHandle(answer);
    return 0;
}
