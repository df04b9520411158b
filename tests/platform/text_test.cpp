#include <gtest/gtest.h>

#include "platform/last_error.h"
#include "platform/text.h"

using namespace host;

TEST(WideFormat, FollowsTheOriginalPlatformsStringRules) {
    EXPECT_EQ(wformat(L"%s: %S Is Not A C67xxx Coff File!", L"CommPolicy_USB", "rf.cof"),
              L"CommPolicy_USB: rf.cof Is Not A C67xxx Coff File!");
    EXPECT_EQ(wformat(L"%ls|%hs|%c|%C", L"wide", "narrow", L'w', 'n'), L"wide|narrow|w|n");
    EXPECT_EQ(wformat(L"%02d/%02d/%d %5.2s|%-4s|", 3, 7, 2026, L"abc", L"x"),
              L"03/07/2026    ab|x   |");
    EXPECT_EQ(wformat(L"Handle[%i]=0x%x %u%% %I64u", 2, 0x1cu, 4000000000u, 1ull << 40),
              L"Handle[2]=0x1c 4000000000% 1099511627776");
    EXPECT_EQ(wformat(L"%S", "gr\xC3\xBC\xC3\x9F"), L"gr\u00FC\u00DF");
}

TEST(WideText, Utf16RoundTripIncludingSurrogates) {
    std::wstring text = L"A\u00e9\u20ac\U0001F600";
    auto bytes = toUtf16le(text);
    ASSERT_EQ(bytes.size(), 10u);
    EXPECT_EQ(bytes[0], 'A');
    EXPECT_EQ(bytes[1], 0);
    EXPECT_EQ(fromUtf16le(bytes.data(), bytes.size()), text);
    EXPECT_EQ(widen(narrow(text)), text);
}

TEST(MessageTable, KnownCodesEndInCrLfAndUnknownOnesFail) {
    auto text = FormatMessageText(1167);
    ASSERT_TRUE(text);
    EXPECT_EQ(text->substr(text->size() - 2), L"\r\n");
    for (DWORD code : {2u, 6u, 31u, 32u, 50u, 87u, 122u, 234u, 258u, 1609u, 10035u, 10053u, 10054u,
                       10057u, 10058u, 10060u})
        EXPECT_TRUE(FormatMessageText(code)) << code;
    EXPECT_FALSE(FormatMessageText(4242));
    EXPECT_EQ(GetLastError(), 317u);
}
