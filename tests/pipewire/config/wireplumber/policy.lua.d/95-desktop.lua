-- What desktops add to linking: default devices, streams that are moved to where they were before, and an end to what
-- is idle or has failed.
load_module("metadata")
load_module("default-nodes", {})
load_script("restore-stream.lua", { properties = { ["restore-props"] = true, ["restore-target"] = true }, rules = {} })
load_script("suspend-node.lua")
