#pragma once
// Which controller board the program runs on, read once from the registry.

// Answers of getPlatform().
inline constexpr int PlatformVbq = 0;           // the registry names some other platform
inline constexpr int PlatformKtx = 1;           // the registry names "Kestrix Platform"
inline constexpr int PlatformUndetermined = 2;  // not read yet; never answered
inline constexpr int PlatformUnreadable = 4;    // the key or value could not be read

// One of PlatformVbq, PlatformKtx or PlatformUnreadable. The registry is read
// on the first call only; the answer never changes afterwards.
int getPlatform();

// Tests only: forget the cached answer so the next call reads the registry again.
void resetPlatformForTest();
