#include "server/alternate_answers.h"

#include <array>
#include <cstdio>

namespace {

constexpr std::array<const char*, 7> kDayNames = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonthNames = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

std::string httpDate(const host::SYSTEMTIME& utc) {
    const char* day = utc.wDayOfWeek < kDayNames.size() ? kDayNames[utc.wDayOfWeek] : "???";
    const char* month =
        utc.wMonth >= 1 && utc.wMonth <= kMonthNames.size() ? kMonthNames[utc.wMonth - 1] : "???";
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%s, %2.2d-%s-%4.4d %2.2d:%2.2d:%2.2d GMT", day,
                  utc.wDay, month, utc.wYear, utc.wHour, utc.wMinute, utc.wSecond);
    return text.data();
}

std::string httpReply(std::string_view request, int receivedBytes, const host::SYSTEMTIME& utc) {
    const std::string_view body =
        receivedBytes > 0 && request.find(kScriptRequestMarker) != std::string_view::npos
            ? kReloadScript
            : kGuiModeNotice;
    const std::string date = httpDate(utc);
    // The reply expires the moment it is sent, and is plain text even when
    // the body is script.
    std::array<char, kHttpBufferSize> reply{};
    std::snprintf(reply.data(), reply.size(),
                  "HTTP/1.0 200 OK\r\nDate: %s\r\nExpires: %s\r\nContent-Type: text/plain\r\n"
                  "Content-Length: %d\r\n\r\n%.*s",
                  date.c_str(), date.c_str(), static_cast<int>(body.size()),
                  static_cast<int>(body.size()), body.data());
    return reply.data();
}
