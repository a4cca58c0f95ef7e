#pragma once

// Ctrl-C as a pause request. install() makes the first SIGINT only raise a flag that the waiting
// loops poll; the handler then restores the default action, so a second Ctrl-C ends the process
// at once. Process-wide and lock-free (the flag is a sig_atomic_t); call install() from main().

class CKXInterrupt
{
public:
    static void install();
    static bool requested();
};
