// The owner of a json-c object: the control plane's bodies are built and read through it, so no reply or
// request path can leave one behind.
#pragma once

#include <json-c/json.h>

#include <memory>

struct orbs3_json_put {
    void operator()(json_object* o) const noexcept { json_object_put(o); }
};
using orbs3_json_ptr = std::unique_ptr<json_object, orbs3_json_put>;
