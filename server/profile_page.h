// The public page of a drive's published statistics: one HTML document with inline SVG and
// inline style, nothing that runs and nothing loaded from elsewhere.
#pragma once
#include <cstdint>
#include <string>

#include "published_stats.h"

std::string render_profile_page(const PublishedStats& stats, int64_t published_at);
std::string render_missing_page();

// "45s", "5m 3s", "2h 5m", as the app writes durations.
std::string duration_text(uint32_t secs);
// 1234567 as "1,234,567".
std::string grouped(uint64_t n);
