/* For mtrace_preload.c: what a forked child inherits. Its log begins with the lines of its parent's whose
   blocks were alive when it was forked, so that no release of one of them is a bad one. */

/* Lines of the parent's log, found by the address in them: a power of two of slots, at most half of them in
   use. A line whose block was released stays there, to keep the way to the others, and is marked. */
struct inherited_line {
    unsigned long address; /* 0: a free slot */
    const char* text;      /* null: released */
    size_t length;
};

struct inherited_lines {
    struct inherited_line* slots;
    size_t capacity;
    size_t used;
};

static struct inherited_line* slot_for(const struct inherited_lines* lines, unsigned long address) {
    size_t at = address * 0x9e3779b97f4a7c15u >> 20;
    struct inherited_line* slot;
    while (slot = &lines->slots[at++ & (lines->capacity - 1)], slot->address != 0 && slot->address != address) {
    }
    return slot;
}

static bool grow(struct inherited_lines* lines) {
    if (2 * (lines->used + 1) <= lines->capacity)
        return true;
    struct inherited_lines more = {.capacity = lines->capacity ? 2 * lines->capacity : 4096};
    more.slots =
        mmap(NULL, more.capacity * sizeof *more.slots, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (more.slots == MAP_FAILED)
        return false;
    for (size_t i = 0; i < lines->capacity; ++i)
        if (lines->slots[i].text) {
            *slot_for(&more, lines->slots[i].address) = lines->slots[i];
            ++more.used;
        }
    if (lines->slots)
        munmap(lines->slots, lines->capacity * sizeof *lines->slots);
    *lines = more;
    return true;
}

static bool read_line(struct inherited_lines* lines, const char* begin, const char* end) {
    const char* place = find_code(begin, end);
    if (!place)
        return true;
    char code = *place;
    unsigned long address = strtoul(place + 2, NULL, 16);
    if (!strchr("-<+>", code) || address == 0)
        return true;
    if (!grow(lines))
        return false;
    struct inherited_line* slot = slot_for(lines, address);
    bool is_new = code == '+' || code == '>';
    if (slot->address == 0 && !is_new)
        return true;
    lines->used += slot->address == 0;
    slot->address = address;
    slot->text = is_new ? begin : NULL;
    slot->length = (size_t)(end + 1 - begin);
    return true;
}

/* In the order of their addresses' slots: which of them is older does not matter any more. */
static void copy_live_blocks(const char* parent, off_t size) {
    if (size == 0)
        return;
    int file = open(parent, O_RDONLY | O_CLOEXEC);
    const char* text = mmap(NULL, (size_t)size, PROT_READ, MAP_PRIVATE, file, 0);
    close(file);
    if (text == MAP_FAILED) {
        end_log(errno);
        return;
    }
    struct inherited_lines lines = {0};
    bool fits = true;
    for (const char *at = text, *end; fits && (end = memchr(at, '\n', (size_t)(text + size - at))); at = end + 1)
        fits = read_line(&lines, at, end);
    if (!fits)
        end_log(ENOMEM);
    for (size_t i = 0; i < lines.capacity && !has_ended; ++i)
        if (lines.slots[i].text)
            write_out(lines.slots[i].text, lines.slots[i].length);
    if (lines.slots)
        munmap(lines.slots, lines.capacity * sizeof *lines.slots);
    munmap((void*)text, (size_t)size);
}
