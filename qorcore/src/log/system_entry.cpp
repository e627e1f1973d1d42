#include "log/system_log.h"
#include "platform/own_process.h"

std::size_t qor::log::system_entry::size() const noexcept {
    std::size_t size = sizeof *this + program.size() + text.size() + file.size() + function.size();
    for (const field& each : fields)
        size += sizeof each + each.name.size() + each.value.size();
    return size;
}

std::shared_ptr<qor::log::system_entry> qor::log::make_system_entry(const entry& sent) {
    auto made = std::make_shared<system_entry>();
    made->level = sent.level;
    made->program = platform::name();
    made->text = sent.text;
    made->fields = sent.fields;
    made->file = sent.place.file != nullptr ? sent.place.file : "";
    made->line = sent.place.line;
    made->function = sent.place.function != nullptr ? sent.place.function : "";
    made->process = platform::process_id();
    made->thread = platform::thread_id();
    made->time = std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    return made;
}
