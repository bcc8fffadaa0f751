#include "front_end/src/framed_connection.h"

#include <algorithm>
#include <optional>

#include "common/text/text.h"
#include "front_end/src/front_end_error.h"

namespace tarvik {

namespace {

constexpr unsigned char kNak = 0x15; ///< the payload that tells a nak from any other failure

/// ok, ng or nak as far as the header tells; nullopt when it is none of them.
std::optional<reply::verdict> verdict_of(const frame_header& header)
{
    if (header.code != 0 || header.value != 0)
        return std::nullopt;
    if (header.error == 0)
        return reply::verdict::ok;
    if (header.error == -1 && header.size == 0)
        return reply::verdict::ng;
    if (header.error == -1 && header.size == 1)
        return reply::verdict::nak;
    return std::nullopt;
}

std::string text_of(const frame_header& header)
{
    return "a header with id " + std::to_string(header.id) + ", code " + std::to_string(header.code) +
           ", error " + std::to_string(header.error) + ", size " + std::to_string(header.size) + ", value " +
           std::to_string(header.value);
}

/// What is wrong with a reply's header; nullopt when nothing is.
std::optional<front_end_error> fault_of(const frame_header& header, std::uint32_t ok_size,
                                        const std::string& step)
{
    if (header.id != kConnectionId)
        return front_end_error(failure::wrong_id, step, "a reply with id " + std::to_string(kConnectionId),
                               text_of(header));
    const auto kind = verdict_of(header);
    if (!kind)
        return front_end_error(failure::unexpected_reply, step, "an ok, ng or nak", text_of(header));
    if (kind == reply::verdict::ok && header.size != ok_size)
        return front_end_error(failure::unexpected_reply, step,
                               "an ok with " + std::to_string(ok_size) + " payload bytes", text_of(header));
    return std::nullopt;
}

void check_nak(byte_view payload, const std::string& step)
{
    if (payload.data[0] != kNak)
        throw front_end_error(failure::unexpected_reply, step,
                              "the byte " + std::to_string(kNak) + " as a nak's payload",
                              "the byte " + std::to_string(payload.data[0]));
}

} // namespace

void framed_connection::put_request(frame_header header, byte_view payload, const std::string& step,
                                    const deadline& until)
{
    header.size = size_field(payload);
    const wire_header head = to_wire(header);
    const std::size_t total = head.size() + payload.size;
    transfer what = {step, "to write a request of " + std::to_string(total) + " bytes", until};
    m_wire.write({head.data(), head.size()}, payload, what);
}

reply framed_connection::take_reply(std::uint32_t ok_size, const std::string& step, const deadline& until)
{
    reply result;
    const auto append = [&](byte_view piece) {
        result.payload.insert(result.payload.end(), piece.begin(), piece.end());
    };
    result.kind = stream_reply(ok_size, append, step, until);
    if (result.kind == reply::verdict::nak)
        result.payload = {kNak};
    return result;
}

reply::verdict framed_connection::stream_reply(std::uint32_t ok_size, const byte_sink& take,
                                               const std::string& step, const deadline& until)
{
    const frame_header header = take_header(ok_size, step, until);
    const reply::verdict kind = verdict_of(header).value();
    if (kind == reply::verdict::nak)
        take_payload(
            header, [&](byte_view piece) { check_nak(piece, step); }, step, until);
    else
        take_payload(header, take, step, until);
    return kind;
}

frame_header framed_connection::take_header(std::uint32_t ok_size, const std::string& step,
                                            const deadline& until)
{
    wire_header head = {};
    transfer what = {step, "a reply's header of " + count_of(head.size(), "byte"), until};
    m_wire.read(head.data(), head.size(), what);
    const frame_header header = from_wire(head);
    if (const auto fault = fault_of(header, ok_size, step))
        throw *fault;
    return header;
}

void framed_connection::take_payload(const frame_header& header, const byte_sink& take,
                                     const std::string& step, const deadline& until)
{
    transfer what = {step, "a reply's payload of " + std::to_string(header.size) + " bytes", until};
    bytes piece(std::min<std::size_t>(kPieceSize, header.size));
    while (what.moved < header.size) {
        const std::size_t offset = what.moved;
        const auto hand_on = [&] { take(byte_view(piece.data(), what.moved - offset)); };
        try {
            m_wire.read(piece.data(), std::min<std::size_t>(piece.size(), header.size - offset), what);
        } catch (const front_end_error&) {
            // Nothing that was received is lost: it may be the best part of a picture.
            if (what.moved > offset)
                hand_on();
            throw;
        }
        hand_on();
    }
}

} // namespace tarvik
