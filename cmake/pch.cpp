// Gives a set of precompiled headers a target to belong to.
