// Named integer switches ("enable:...", "disable:...", "debug:...").
//
// Every switch is a global object defined in the module that reads it.  All
// switches start at 0 and are set once, from the three list-valued options of
// the command line, through process_debug_option().
#pragma once

#include <map>
#include <string>

class register_option {
public:
    explicit register_option(std::string name);
    ~register_option();
    register_option(const register_option&) = delete;
    register_option& operator=(const register_option&) = delete;

    operator int() const { return value_; }
    register_option& operator=(int v) {
        value_ = v;
        return *this;
    }
    const std::string& name() const { return name_; }

    // The registry, created on first use so that switches of any module find
    // it whatever the order of static construction.
    static std::map<std::string, register_option*>& objects();
    static register_option* get_option(const std::string& name);
    static std::map<std::string, int> get_state();
    static void set_state(const std::map<std::string, int>& state);
    static void reset_state();
    static void dump();

private:
    std::string name_;
    int value_;
};

// Parses one list argument ("a,b=3,c") and sets the switches "<prefix>:a",
// "<prefix>:b" and "<prefix>:c".  Unknown names are ignored silently.
void process_debug_option(const char* prefix, const char* list);
