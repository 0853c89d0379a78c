// NamedTask.h: a task put off to the end of a read that writes its name when it runs.
#ifndef VESSA_TESTS_UNIT_NAMEDTASK_H
#define VESSA_TESTS_UNIT_NAMEDTASK_H

#include <string>
#include <utility>
#include <vector>

#include "unit/RegistryGatePasses.h"

struct NamedTask : GateTask {
    NamedTask(std::vector<std::string>& journal, std::string task_name)
        : log(journal), name(std::move(task_name)) {
        run = &Run;
    }
    static void Run(GateTask* self) {
        auto& task = *static_cast<NamedTask*>(self);
        task.log.push_back(task.name);
        if (task.inside) task.inside();
    }
    std::vector<std::string>& log;
    std::string name;
    Work inside;
};

using Journal = std::vector<std::string>;

#endif
