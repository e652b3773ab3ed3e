// The precompiled header needs one source file.
