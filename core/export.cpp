// Statistics export as JSON and the HMAC that signs an upload.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "qm_core_internal.h"

namespace {

// Appends within cap and keeps counting past it, so len ends as the whole length.
__attribute__((format(printf, 4, 5))) void app(char* buf, int cap, int* len, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = buf && cap > *len ? std::vsnprintf(buf + *len, size_t(cap - *len), fmt, ap)
                              : std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (n > 0) *len += n;
}

void app_hex(char* buf, int cap, int* len, const uint8_t* p, int n) {
    for (int i = 0; i < n; ++i) app(buf, cap, len, "%02x", p[i]);
}

void app_counters(char* buf, int cap, int* len, const qm_stats& s) {
    app(buf, cap, len,
        ",\"counters\":{\"sessions\":%u,\"write_secs\":%u,\"longest_secs\":%u,\"words\":%u,\"chars\":%u,"
        "\"sentences\":%u,\"newlines\":%u,\"saves\":%u,\"created\":%u}",
        s.sessions, s.write_secs, s.longest_secs, s.words, s.chars, s.sentences, s.newlines, s.saves, s.created);
    app(buf, cap, len, ",\"device_streak\":{\"current\":%u,\"best\":%u,\"days_written\":%u}", s.streak_current,
        s.streak_best, s.days_written);
}

void app_days(char* buf, int cap, int* len, const qm_drive* h) {
    app(buf, cap, len, ",\"days\":[");
    for (uint32_t i = 0; i < h->n_days; ++i) {
        unsigned y, m, d;
        qm_day_to_ymd(h->days[i].day, &y, &m, &d);
        app(buf, cap, len, "%s{\"date\":\"%04d-%02d-%02d\",\"words\":%u,\"secs\":%u}", i ? "," : "", int(y), int(m),
            int(d), h->days[i].words, h->days[i].secs);
    }
    app(buf, cap, len, "]}");
}

}  // namespace

extern "C" int qm_export_json(const qm_drive* h, char* buf, int cap) {
    if (!h) return QM_EARG;
    if (cap < 0) cap = 0;
    if (buf && cap > 0) buf[0] = 0;
    int len = 0;
    app(buf, cap, &len, "{\"format\":%d,\"drive_id\":\"", 2);
    app_hex(buf, cap, &len, h->key.drive_id, 16);
    app(buf, cap, &len, "\",\"seq\":%u,\"chain_tag\":\"", h->seq);
    app_hex(buf, cap, &len, h->chain_tag, 32);
    app(buf, cap, &len, "\",\"source\":\"%s\"", h->from_backup == 1 ? "stats.bak" : "stats.db");
    app_counters(buf, cap, &len, h->stats);
    app_days(buf, cap, &len, h);
    if (buf && cap > 0) buf[len < cap - 1 ? len : cap - 1] = 0;
    return len;
}

extern "C" int qm_sign_upload(const qm_drive* h, const char* timestamp, const uint8_t* body, int body_len,
                              char out[65]) {
    if (!h || !timestamp || !body || !out || body_len < 0) return QM_EARG;
    hmac_sha256_ctx c;
    uint8_t mac[32];
    hmac_sha256_init(&c, qm_upload_key(h), 32);
    hmac_sha256_update(&c, timestamp, std::strlen(timestamp));
    hmac_sha256_update(&c, ".", 1);
    hmac_sha256_update(&c, body, size_t(body_len));
    hmac_sha256_final(&c, mac);
    for (int i = 0; i < 32; ++i) std::snprintf(out + 2 * i, 3, "%02x", mac[i]);
    return QM_OK;
}
