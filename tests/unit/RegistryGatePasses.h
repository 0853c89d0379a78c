// A thread's passes through a gate, each for the time of the work inside it.
#ifndef VESSA_TESTS_UNIT_REGISTRYGATEPASSES_H
#define VESSA_TESTS_UNIT_REGISTRYGATEPASSES_H

#include <functional>

#include "common/RegistryGate.h"

using Work = std::function<void()>;

inline void Reading(RegistryGate& gate, const Work& inside) {
    GatePass pass(gate, GatePass::AsReader());
    inside();
}

inline void Writing(RegistryGate& gate, const Work& inside) {
    GatePass pass(gate, GatePass::AsWriter());
    inside();
}

inline void WritingThenReading(RegistryGate& gate, const Work& writing, const Work& reading) {
    GatePass pass(gate, GatePass::AsWriter());
    writing();
    pass.Downgrade();
    reading();
}

#endif
