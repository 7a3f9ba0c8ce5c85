/// What main calls: the steps of detaching, which fail on demand, and the registrations, each as a
/// note.

#pragma once

namespace fuzz {

struct Process {
    int fork = 0;
    int setsid = 1;
    int chdir = 0;
};

Process &process();

} // namespace fuzz
