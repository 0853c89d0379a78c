// What the tests of the logging library have to know about the system. Each system has a folder
// with a header of this name.
#pragma once

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace skrib_test {

constexpr char kLineEnd[] = "\r\n";
// Takes everything and keeps nothing.
constexpr char kNowhere[] = "NUL";

// A time zone for a child, by its environment, and how a line shows it. The system has but one.
inline std::vector<std::string> ZoneSetting() {
    return {};
}
inline std::string ZoneShown() {
    DYNAMIC_TIME_ZONE_INFORMATION zone;
    const DWORD kind = GetDynamicTimeZoneInformation(&zone);
    const long west_minutes =
        zone.Bias + (kind == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightBias : zone.StandardBias);
    char text[16];
    std::snprintf(text, sizeof text, "%c%02ld:%02ld", west_minutes > 0 ? '-' : '+',
                  std::labs(west_minutes) / 60, std::labs(west_minutes) % 60);
    return text;
}

inline std::wstring Wide(const std::string& text) {
    const int length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
    return wide;
}

inline std::string Narrow(const std::wstring& wide) {
    const int length = static_cast<int>(wide.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, text.data(), size, nullptr, nullptr);
    return text;
}

}  // namespace skrib_test
