// Nothing but a target for the header that all test programs share precompiled.
