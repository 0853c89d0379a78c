// OrderModules.h: the test modules in an order. Each operation of each module is counted, is a
// point at which a thread can be held ("in.Init", "in.CreateInstance", of either version, and so
// on, but "Load" and "Unload", which are under the system loader's lock), and can be given to the
// test. In contrast to ModuleHook nothing here orders the threads that come in.
#ifndef VESSA_TESTS_RELIABILITY_ORDERS_ORDERMODULES_H
#define VESSA_TESTS_RELIABILITY_ORDERS_ORDERMODULES_H

#include <functional>
#include <string>
#include <vector>

namespace vessa_test {

// One at a time. While it lives nothing is logged, which would order threads too. What it is told
// to do is said before the threads start that come in.
class OrderModules {
  public:
    // Runs after the point, inside the module; the operation goes on in its own way.
    using Handler = std::function<void(void* about)>;

    OrderModules();
    ~OrderModules();
    OrderModules(const OrderModules&) = delete;
    OrderModules& operator=(const OrderModules&) = delete;

    // about is the instance of a destroy and a query. The module's name is that of its file
    // without its suffix, the operation's that of its slot, without "_V2".
    void On(const std::string& module, const std::string& operation, Handler handler);

    // "Init x", "CreateInstance x", in the order in which they began. After the threads' end.
    std::vector<std::string> Journal() const;
    int Count(const std::string& line) const;
};

}  // namespace vessa_test

#endif
