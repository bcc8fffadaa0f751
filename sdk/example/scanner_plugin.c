/*
 * A sample plugin, to start from. It serves the virtual scanner of tests/target: whatever the front-end sends
 * is passed on, and whatever the scanner answers is passed back, but for one command that the scanner does
 * not know and that the plugin makes of several transfers: the scan of an area. COMMANDS.md has the bytes.
 *
 * The file shows what most plugins need: keeping the two transfers from start to end, transfers that bring
 * less than was asked, a stall, answers that are checked before they are believed, data that the front-end
 * takes in other pieces than the device gives, and leaving the device in order whenever the session ends.
 *
 * All calls come from one thread, one after the other: no locks.
 */
#include <stdint.h>
#include <string.h>
#include <tarvik/interpreter.h>

enum {
    BLOCK_SIZE = 16,
    AREA_SIZE = 16,
    SCAN_SIZE = BLOCK_SIZE + AREA_SIZE,
    PAIR_SIZE = 8, /* of two numbers */

    COMMAND_SHEET = 7,
    COMMAND_READ_LINES = 8,
    COMMAND_SCAN = 256,

    STATUS_DONE = 0,
    STATUS_BAD_ARGUMENT = 2,

    PIECE_SIZE = 64 * 1024, /* taken from the device at once; a multiple of its packets, or reads overflow */

    LARGEST_TRANSFER = 1024 * 1024 /* in bytes, whole packets: kernels refuse transfers of 16 MiB */
};

static const unsigned char command_mark[4] = {'V', 'S', 'C', '1'};
static const unsigned char answer_mark[4] = {'V', 'S', 'A', '1'};

/* The first 16 bytes of a command or an answer. */
struct block {
    uint16_t code;
    uint16_t tag;
    uint32_t third; /* argument or status */
    uint32_t length;
};

/* In pixels and lines. */
struct area {
    uint32_t left;
    uint32_t top;
    uint32_t width;
    uint32_t height;
};

static struct {
    tarvik_transfer read_device;
    tarvik_transfer write_device;

    struct area area;     /* of the scan under way */
    uint32_t line_pixels; /* of the sheet; the device gives whole lines, from the area's first to its last */
    uint32_t next_pixel;  /* of those lines, that the device gives next */
    uint32_t end_pixel;   /* where the device stops; equal to next_pixel: no more to come */
    uint32_t bytes_left;  /* that the front-end may still take; 0: no scan under way */

    unsigned char ready[PIECE_SIZE]; /* for the front-end */
    uint32_t ready_begin;
    uint32_t ready_end;
} session;

static uint32_t get16(const unsigned char* from)
{
    return from[0] | (uint32_t)from[1] << 8;
}

static uint32_t get32(const unsigned char* from)
{
    return get16(from) | get16(from + 2) << 16;
}

static void put16(unsigned char* to, uint32_t value)
{
    to[0] = (unsigned char)(value & 0xFF);
    to[1] = (unsigned char)(value >> 8 & 0xFF);
}

static void put32(unsigned char* to, uint32_t value)
{
    put16(to, value & 0xFFFF);
    put16(to + 2, value >> 16);
}

static int is_marked(const unsigned char* bytes, const unsigned char* mark)
{
    return memcmp(bytes, mark, sizeof command_mark) == 0;
}

static void encode(unsigned char* to, const unsigned char* mark, const struct block* what)
{
    memcpy(to, mark, sizeof command_mark);
    put16(to + 4, what->code);
    put16(to + 6, what->tag);
    put32(to + 8, what->third);
    put32(to + 12, what->length);
}

static struct block decode(const unsigned char* from)
{
    struct block what;
    what.code = (uint16_t)get16(from + 4);
    what.tag = (uint16_t)get16(from + 6);
    what.third = get32(from + 8);
    what.length = get32(from + 12);
    return what;
}

static int at_most_a_transfer(int length)
{
    return length < LARGEST_TRANSFER ? length : LARGEST_TRANSFER;
}

/*
 * Fills all of `buffer`, or fails with 0. A device may answer in several transfers, so a short one is no
 * failure by itself; one that brings nothing is, for then the rest will not come either.
 */
static int read_all(void* buffer, int length)
{
    unsigned char* next = buffer;
    int missing = length;
    while (missing > 0) {
        const int moved = session.read_device(next, at_most_a_transfer(missing));
        if (moved <= 0)
            return 0;
        next += moved;
        missing -= moved;
    }
    return 1;
}

/* Passes all of `buffer` on, or fails with 0 when a transfer takes nothing. */
static int write_all(void* buffer, int length)
{
    unsigned char* next = buffer;
    int left = length;
    while (left > 0) {
        const int moved = session.write_device(next, at_most_a_transfer(left));
        if (moved <= 0)
            return 0;
        next += moved;
        left -= moved;
    }
    return 1;
}

/* A stall moves nothing and is over when the transfer returns: the second try is the one that counts. */
static int transfer_past_a_stall(tarvik_transfer transfer, void* buffer, int length)
{
    const int moved = transfer(buffer, length);
    return moved > 0 ? moved : transfer(buffer, length);
}

static int write_past_a_stall(unsigned char* bytes, int length)
{
    const int moved = transfer_past_a_stall(session.write_device, bytes, length);
    return moved > 0 && write_all(bytes + moved, length - moved);
}

static int read_past_a_stall(unsigned char* bytes, int length)
{
    const int moved = transfer_past_a_stall(session.read_device, bytes, length);
    return moved > 0 && read_all(bytes + moved, length - moved);
}

/* Moves what the area has of the `count` pixels in `ready` to its front; their number. */
static uint32_t crop(uint32_t count)
{
    const struct area* area = &session.area;
    uint32_t column = session.next_pixel % session.line_pixels;
    uint32_t kept = 0;
    for (uint32_t pixel = 0; pixel < count; ++pixel) {
        if (column >= area->left && column - area->left < area->width)
            session.ready[kept++] = session.ready[pixel];
        if (++column == session.line_pixels)
            column = 0;
    }
    return kept;
}

static void end_scan(void)
{
    session.next_pixel = 0;
    session.end_pixel = 0;
    session.bytes_left = 0;
    session.ready_begin = 0;
    session.ready_end = 0;
}

/* Takes the next pixels of the sheet from the device; lines may begin and end anywhere among them. */
static int take_piece(void)
{
    uint32_t count = session.end_pixel - session.next_pixel;
    if (count > PIECE_SIZE)
        count = PIECE_SIZE;
    if (count == 0 || !read_all(session.ready, (int)count))
        return 0;
    session.ready_begin = 0;
    session.ready_end = crop(count);
    session.next_pixel += count;
    return 1;
}

/* The device goes on until it has given all that it was asked for: a new command would get old pixels. */
static void abandon_scan(void)
{
    while (session.next_pixel != session.end_pixel && take_piece()) {
    }
    end_scan();
}

static int is_on_sheet(const struct area* area, uint32_t pixels, uint32_t lines)
{
    return area->width > 0 && area->width <= pixels && area->left <= pixels - area->width &&
           area->height > 0 && area->height <= lines && area->top <= lines - area->height;
}

/* Makes the plugin's own answer the next thing that the front-end receives. */
static void answer_scan(uint16_t tag, uint32_t status, uint32_t length)
{
    const struct block answer = {COMMAND_SCAN, tag, status, length};
    encode(session.ready, answer_mark, &answer);
    session.ready_begin = 0;
    session.ready_end = BLOCK_SIZE;
    session.bytes_left = BLOCK_SIZE + length;
}

/* Sends a command of the device's own; whether it answered that one, in whatever way. */
static int ask_device(const struct block* command, const unsigned char* payload, struct block* answer)
{
    unsigned char bytes[BLOCK_SIZE + PAIR_SIZE];
    encode(bytes, command_mark, command);
    memcpy(bytes + BLOCK_SIZE, payload, command->length);
    if (!write_past_a_stall(bytes, (int)(BLOCK_SIZE + command->length)) ||
        !read_past_a_stall(bytes, BLOCK_SIZE) || !is_marked(bytes, answer_mark))
        return 0;
    *answer = decode(bytes);
    return answer->code == command->code && answer->tag == command->tag;
}

/* Asks how large the sheet is. `status` is the device's: it may not have the resolution. */
static int ask_for_sheet(uint16_t tag, uint32_t resolution, uint32_t* status, uint32_t* lines)
{
    const struct block command = {COMMAND_SHEET, tag, resolution, 0};
    struct block answer;
    unsigned char size[PAIR_SIZE] = {0};
    if (!ask_device(&command, size, &answer))
        return 0;
    *status = answer.third;
    if (answer.third != STATUS_DONE)
        return 1;
    if (answer.length != sizeof size || !read_all(size, sizeof size))
        return 0;
    session.line_pixels = get32(size);
    *lines = get32(size + 4);
    return 1;
}

/* Asks for the lines that the area is on; whether the device will give them. */
static int ask_for_lines(uint16_t tag, uint32_t resolution)
{
    const struct block command = {COMMAND_READ_LINES, tag, resolution, PAIR_SIZE};
    const uint32_t length = session.area.height * session.line_pixels;
    struct block answer;
    unsigned char range[PAIR_SIZE];
    put32(range, session.area.top);
    put32(range + 4, session.area.height);
    return ask_device(&command, range, &answer) && answer.third == STATUS_DONE && answer.length == length;
}

static int start_scan(const unsigned char* request)
{
    const struct block scan = decode(request);
    const unsigned char* area = request + BLOCK_SIZE;
    uint32_t status = STATUS_DONE;
    uint32_t lines = 0;
    session.area = (struct area){get32(area), get32(area + 4), get32(area + 8), get32(area + 12)};
    if (!ask_for_sheet(scan.tag, scan.third, &status, &lines))
        return 0;
    if (status == STATUS_DONE && !is_on_sheet(&session.area, session.line_pixels, lines))
        status = STATUS_BAD_ARGUMENT;
    if (status != STATUS_DONE) {
        answer_scan(scan.tag, status, 0);
        return 1;
    }
    if (!ask_for_lines(scan.tag, scan.third))
        return 0;
    answer_scan(scan.tag, STATUS_DONE, session.area.width * session.area.height);
    session.end_pixel = session.area.height * session.line_pixels;
    return 1;
}

static int is_scan(const unsigned char* request, int length)
{
    if (length != SCAN_SIZE || !is_marked(request, command_mark))
        return 0;
    const struct block what = decode(request);
    return what.code == COMMAND_SCAN && what.length == AREA_SIZE;
}

/* Hands the front-end the next bytes of the scan, in its own pieces. */
static int give(unsigned char* buffer, uint32_t length)
{
    if (length > session.bytes_left)
        return 0;
    session.bytes_left -= length;
    while (length > 0) {
        if (session.ready_begin == session.ready_end && !take_piece()) {
            end_scan();
            return 0;
        }
        uint32_t count = session.ready_end - session.ready_begin;
        if (count > length)
            count = length;
        memcpy(buffer, session.ready + session.ready_begin, count);
        session.ready_begin += count;
        buffer += count;
        length -= count;
    }
    if (session.bytes_left == 0)
        abandon_scan(); /* the last line may go on to the right of the area */
    return 1;
}

/* May find what a session left that was never stopped: its device is gone. */
int interpreter_ctor(tarvik_transfer reader, tarvik_transfer writer)
{
    if (reader == NULL || writer == NULL)
        return 0;
    session.read_device = reader;
    session.write_device = writer;
    end_scan();
    return 1;
}

void interpreter_dtor(void)
{
    abandon_scan();
    session.read_device = NULL;
    session.write_device = NULL;
}

int interpreter_reader(void* buffer, int length)
{
    if (length <= 0) /* a request for 2 GiB or more looks like this */
        return 0;
    if (session.bytes_left > 0)
        return give(buffer, (uint32_t)length);
    return read_all(buffer, length);
}

int interpreter_writer(void* buffer, int length)
{
    if (length <= 0)
        return 0;
    abandon_scan();
    return is_scan(buffer, length) ? start_scan(buffer) : write_all(buffer, length);
}
