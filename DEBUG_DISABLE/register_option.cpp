#include "DEBUG_DISABLE/register_option.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

register_option::register_option(std::string name) : name_(std::move(name)), value_(0) {
    objects()[name_] = this;
}

register_option::~register_option() {
    auto& objs = objects();
    auto it = objs.find(name_);
    if (it != objs.end() && it->second == this) objs.erase(it);
}

std::map<std::string, register_option*>& register_option::objects() {
    // Deliberately leaked: switches of other translation units are destroyed
    // after this function's statics would be, and they unregister themselves.
    static auto* objs = new std::map<std::string, register_option*>;
    return *objs;
}

register_option* register_option::get_option(const std::string& name) {
    auto& objs = objects();
    auto it = objs.find(name);
    return it == objs.end() ? nullptr : it->second;
}

std::map<std::string, int> register_option::get_state() {
    std::map<std::string, int> state;
    for (auto& [name, opt] : objects()) state[name] = opt->value_;
    return state;
}

void register_option::set_state(const std::map<std::string, int>& state) {
    for (auto& [name, value] : state) {
        register_option* opt = get_option(name);
        if (!opt) throw std::invalid_argument("set_state: no switch named " + name);
        opt->value_ = value;
    }
}

void register_option::reset_state() {
    for (auto& entry : objects()) entry.second->value_ = 0;
}

void register_option::dump() {}

void process_debug_option(const char* prefix, const char* list) {
    enum { NAME_LIMIT = 512 };
    char name[NAME_LIMIT + 64];
    int base_len = std::snprintf(name, sizeof name, "%s:", prefix);
    if (base_len < 0 || base_len >= NAME_LIMIT) return;

    std::string copy(list ? list : "");
    size_t start = 0;
    for (;;) {
        size_t comma = copy.find(',', start);
        std::string item = copy.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        std::string key;
        long value = 1;
        size_t eq = item.find('=');
        if (eq != std::string::npos) {
            value = std::strtol(item.c_str() + eq + 1, nullptr, 0);
            key = item.substr(0, eq);
        } else if (base_len + item.size() < NAME_LIMIT) {
            key = item;
        }
        // An over-long key with a value is still looked up: the length limit
        // only guards items given without "=".
        std::string full = std::string(name, base_len) + key;
        if (register_option* opt = register_option::get_option(full)) *opt = static_cast<int>(value);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
}
