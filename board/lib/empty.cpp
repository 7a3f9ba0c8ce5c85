// A platform library of which the daemon only needs to be linked with.
