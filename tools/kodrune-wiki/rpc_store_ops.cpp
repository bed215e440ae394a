// rpc ops of the store area.
#include "kodrune-wiki/rpc.hpp"

namespace kodrune_cli {

// This area's ops are not served yet: the loop answers "invalid_request" for them.
void register_store_ops(OpTable& /*ops*/) {}

}  // namespace kodrune_cli
