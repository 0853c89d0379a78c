// What the library knows of a thread while that thread is inside it.
//
// The state lives on the stack of the thread's outermost library frame and is found through
// the process's slot for each thread, so nothing is allocated and nothing is left behind when
// a thread ends.
#pragma once

#include <cstdint>

struct GateHold;

struct ThreadState {
    int32_t frames = 0;           // library frames on the stack
    int32_t plugin_calls = 0;     // calls into modules on the stack
    GateHold* holds = nullptr;    // reads of registry gates, innermost first
    const void* timer = nullptr;  // set on a timer's thread: whose
    bool starting = false;        // the library's start is on the stack
    void (*at_end)() = nullptr;   // run once when the outermost frame ends
};

// One library frame. Every export that may come to a module, every tick of a timer, every read
// of a gate and every call into a module opens one; frames nest.
//
// Thread safety: on the stack of one thread. Construction throws std::bad_alloc when the
// system has no room for the thread's slot.
class ThreadScope {
  public:
    ThreadScope();
    // at_end may be ended by the cancellation of the thread, which passes through.
    ~ThreadScope() noexcept(false);
    ThreadScope(const ThreadScope&) = delete;
    ThreadScope& operator=(const ThreadScope&) = delete;

    ThreadState& State() { return *state_; }

    // The calling thread's state; null outside every library frame.
    static ThreadState* Current();
    static bool InPluginCall();

  private:
    ThreadState own_;
    ThreadState* state_;
};

// A frame around a call into a module.
class PluginCallScope {
  public:
    PluginCallScope() { ++scope_.State().plugin_calls; }
    ~PluginCallScope() noexcept(false) { --scope_.State().plugin_calls; }
    PluginCallScope(const PluginCallScope&) = delete;
    PluginCallScope& operator=(const PluginCallScope&) = delete;

  private:
    ThreadScope scope_;
};
