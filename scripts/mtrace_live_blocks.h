/* For mtrace_preload.c: the blocks that a forked child inherits. The child's log begins with the parent's lines for
   the blocks that were alive at the fork, so that releasing them does not look like a bad release. */

/* Lines of the parent's log, in a hash table by address. The number of slots is a power of two, and at most half of
   them are used. The line of a released block keeps its slot, so that probing still finds later slots. */
struct inherited_line {
    unsigned long address; /* 0: the slot is free */
    const char* text;      /* null: the block was released */
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

/* Writes the lines in the order of the slots; their age no longer matters. */
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
