// Makes a growing heap cheaper. This header has a namesake for each system.
#pragma once

// Nothing to do here.
inline void populateHeapGrowth() {}
