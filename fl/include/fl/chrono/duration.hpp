#pragma once

// std::chrono's durations, time points and clocks for headers that name them. With libstdc++ this
// is the part of <chrono> without C++20's calendar, time zones and formatting, which bring in the
// string streams and locales; a file that formats or parses times includes <chrono> itself.

#include <version> // defines __GLIBCXX__ with libstdc++

#if defined(__GLIBCXX__) && __has_include(<bits/chrono.h>)
#include <bits/chrono.h>
#else
#include <chrono>
#endif
