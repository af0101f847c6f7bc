// The module's code is the plug-in core, linked whole; this unit only gives the target a source.
