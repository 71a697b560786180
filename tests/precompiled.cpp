// Has the precompiled header made.
