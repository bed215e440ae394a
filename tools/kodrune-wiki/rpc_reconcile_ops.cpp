// rpc ops of the reconcile area.
#include "kodrune-wiki/rpc.hpp"

namespace kodrune_cli {

// This area's ops are not served yet: the loop answers "invalid_request" for them.
void register_reconcile_ops(OpTable& /*ops*/) {}

}  // namespace kodrune_cli
