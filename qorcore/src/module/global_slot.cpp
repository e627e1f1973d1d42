// Values of the whole process, by name.
#include "error/error.h"
#include "module/module.h"
#include "module/turns.h"
#include "platform/no_cancellation.h"
#include "qor/qor.h"

#include <functional> // std::less<>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qor::module {
namespace {

struct slot {
    turn making{};
    std::string type{};
    qorGlobalValue value{};
};

// Never destroyed: values live until the process ends, unless qorCleanup is called. Under the lock.
struct all_slots {
    std::map<std::string, std::shared_ptr<slot>, std::less<>> by_name;
    std::vector<std::string> made; // in this order
    bool is_ending = false;
};

all_slots& slots() {
    static auto& all = *new all_slots;
    return all;
}

std::shared_ptr<slot> find_or_add(const char* name) {
    std::shared_ptr<slot>& place = slots().by_name[name];
    if (place == nullptr)
        place = std::make_shared<slot>();
    return place;
}

// Ends the turn of a slot that was not made. The last one that wants it forgets it.
void give_up(const char* name, std::shared_ptr<slot>& which) {
    which->making.leave(false);
    const auto place = slots().by_name.find(std::string_view(name));
    which.reset();
    if (place != slots().by_name.end() && place->second.use_count() == 1 && !place->second->making.is_made())
        slots().by_name.erase(place);
}

} // namespace

void end_global_slots() noexcept {
    const platform::no_cancellation whole;
    auto hold = take_lock();
    slots().is_ending = true;
    while (!slots().made.empty()) {
        const auto place = slots().by_name.find(slots().made.back());
        slots().made.pop_back();
        const qorGlobalValue last = place->second->value;
        place->second->making.leave(false); // a thread that has waited for it does not get it any more
        slots().by_name.erase(place);
        hold.unlock();
        if (last.destroy != nullptr)
            last.destroy(last.value);
        hold.lock();
    }
    slots().is_ending = false;
}

} // namespace qor::module

bool qor::glue::qorGetGlobalSlot(const char* name, const char* type, qorGlobalMaker maker, void* context,
                                 void** out) noexcept {
    using module::slots;
    using module::turn;
    const platform::no_cancellation whole;
    if (name == nullptr || *name == '\0' || type == nullptr) {
        error::set(qorError_invalid_argument, {"qorGetGlobalSlot", type == nullptr ? "type" : "name"});
        return false;
    }
    auto hold = module::take_lock();
    std::shared_ptr<module::slot> which;
    turn::outcome outcome;
    for (;;) {
        which = module::find_or_add(name);
        outcome = which->making.enter(hold);
        if (outcome == turn::outcome::circular || module::find_or_add(name) == which)
            break;
        // While this thread waited, the value was made and destroyed.
        if (outcome == turn::outcome::mine)
            which->making.leave(false);
    }
    if (outcome == turn::outcome::circular) {
        error::set(qorError_global_slot_circular, {name});
        return false;
    }
    if (outcome == turn::outcome::mine) {
        const auto fail = [&](qorErrorNumber number) {
            give_up(name, which);
            error::set(number, {name});
            return false;
        };
        if (maker == nullptr)
            return fail(qorError_global_slot_unmade);
        if (slots().is_ending)
            return fail(qorError_global_slots_end);
        hold.unlock();
        qorGlobalValue made;
        const bool is_made = maker(context, made);
        hold.lock();
        if (!is_made) {
            give_up(name, which);
            return false;
        }
        which->type = type;
        which->value = made;
        slots().made.emplace_back(name);
        which->making.leave(true);
    }
    if (which->type != type) {
        error::set(qorError_global_slot_type, {name, which->type.c_str(), type});
        return false;
    }
    *out = which->value.value;
    return true;
}
