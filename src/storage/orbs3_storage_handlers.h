// The storage layer's part of the S3 action table: the handlers of the actions that touch buckets and
// objects, installed into the s3 layer's table at start.
#pragma once

// Installs every storage handler into s3_events; 0, or -1 when the table lacks one of the actions.
[[nodiscard]] int orbs3_storage_install_handlers();
