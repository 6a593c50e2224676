/* Section streams: section and list headers, typed list and map bodies. */
#include "tazewriter.h"

namespace tazw {

Bytes section(std::uint32_t magic, std::uint32_t count, const Bytes &body, std::uint32_t crc,
              std::optional<std::uint32_t> size_override)
{
    LeBuf b;
    b.u32(magic).u32(crc).u32(size_override.value_or(std::uint32_t(body.size()))).u32(count).raw(body);
    return b.take();
}

Bytes list(std::uint32_t number, std::uint32_t count, const Bytes &entries,
           std::optional<std::uint32_t> size_override)
{
    LeBuf b;
    b.u32(number).u32(size_override.value_or(std::uint32_t(entries.size()))).u32(count).raw(entries);
    return b.take();
}

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes string_entries(const std::vector<std::string> &strings)
{
    LeBuf b;
    for (const std::string &s : strings) b.str(s);
    return b.take();
}

Bytes ip_entries(const std::vector<std::pair<std::uint32_t, std::uint32_t>> &ranges)
{
    LeBuf b;
    for (const auto &r : ranges) b.u32(r.first).u32(r.second);
    return b.take();
}

Bytes ipv6_entries(const std::vector<std::pair<IPv6, IPv6>> &ranges)
{
    LeBuf b;
    for (const auto &r : ranges) b.ipv6(r.first).ipv6(r.second);
    return b.take();
}

Bytes port_entries(const std::vector<std::pair<std::uint16_t, std::uint16_t>> &ranges)
{
    LeBuf b;
    for (const auto &r : ranges) b.u16(r.first).u16(r.second);
    return b.take();
}

namespace {

void put_key(LeBuf &b, const std::string &k) { b.str(k); }
void put_key(LeBuf &b, std::uint32_t k) { b.u32(k); }
void put_key(LeBuf &b, const IPv6 &k) { b.ipv6(k); }
void put_value(LeBuf &b, std::uint32_t v) { b.u32(v); }
void put_value(LeBuf &b, const IPv6 &v) { b.ipv6(v); }
void put_value(LeBuf &b, const std::string &v) { b.str(v); }

/* Every map layout: key, u32 value count, the values. */
template <typename Entry>
Bytes encode_map(const std::vector<Entry> &entries)
{
    LeBuf b;
    for (const Entry &e : entries) {
        put_key(b, e.key);
        b.u32(std::uint32_t(e.values.size()));
        for (const auto &v : e.values) put_value(b, v);
    }
    return b.take();
}

} // namespace

Bytes map_entries(const std::vector<StrIntEntry> &e) { return encode_map(e); }
Bytes map_entries(const std::vector<StrIPv6Entry> &e) { return encode_map(e); }
Bytes map_entries(const std::vector<IntIntEntry> &e) { return encode_map(e); }
Bytes map_entries(const std::vector<IPv6IntEntry> &e) { return encode_map(e); }
Bytes map_entries(const std::vector<IntStrEntry> &e) { return encode_map(e); }
Bytes map_entries(const std::vector<StrStrEntry> &e) { return encode_map(e); }

} // namespace tazw
