#pragma once
// The texts of the Telnet and HTTP alternates, built without any socket.
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/clock.h"

inline constexpr std::string_view kGuiModeNotice = "Unit is in Windows GUI mode.";
inline constexpr std::string_view kReloadScript = "window.location.reload(true);";
// A request that names a script file is answered with kReloadScript.
inline constexpr std::string_view kScriptRequestMarker = ".js HTTP";
inline constexpr std::size_t kHttpBufferSize = 2048;
inline constexpr unsigned kHttpReceiveTimeoutMs = 5000;

// "Sun, 05-Jan-2020 09:03:07 GMT" for a UTC time.
std::string httpDate(const host::SYSTEMTIME& utc);

// The whole HTTP/1.0 reply to `request` (the received text up to its first
// zero byte; `receivedBytes` of them came in), dated `utc`.
std::string httpReply(std::string_view request, int receivedBytes, const host::SYSTEMTIME& utc);
