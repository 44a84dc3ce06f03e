// The unit read family, shared by both families: the list of units, and
// every item of a unit or subunit answered from its descriptor tree.
#include <cstring>

#include "tw_api/tw_api_private.h"

using twp::unit_id_of;
constexpr uint8_t kUnused = 0xFF;  // no unit at this number

bool unit_tree::parse(const uint8_t* bytes, size_t size)
{
    count = 0;
    if (size < twp::kUnitHeadSize) return false;
    const size_t room = (size - twp::kUnitHeadSize) / sizeof(TAG_TW_Unit_Node);
    const int n = bytes[0];
    if (n < 1 || size_t(n) > room || n > kMaxNodes) return false;
    for (int i = 0; i < n; ++i) {
        std::memcpy(&node[i], bytes + twp::kUnitHeadSize + size_t(i) * sizeof(TAG_TW_Unit_Node), sizeof node[i]);
        first_child[i] = next_peer[i] = -1;
    }
    // Preorder: a stack of open parents with the children each still waits for.
    int open[twp::kMaxUnitDepth];
    int left[twp::kMaxUnitDepth];
    int last_child[twp::kMaxUnitDepth];
    int top = 0;
    for (int i = 0; i < n; ++i) {
        if (i > 0) {
            if (top == 0) return false;  // a second root: the count runs past the tree
            const int parent = open[top - 1];
            if (last_child[top - 1] < 0) first_child[parent] = i;
            else next_peer[last_child[top - 1]] = i;
            last_child[top - 1] = i;
            --left[top - 1];
        }
        depth[i] = top + 1;
        if (node[i].children > 0) {
            if (top >= twp::kMaxUnitDepth - 1) return false;  // children past the fourth level
            open[top] = i;
            left[top] = node[i].children;
            last_child[top] = -1;
            ++top;
        }
        while (top > 0 && left[top - 1] == 0)
            --top;
    }
    if (top != 0) return false;  // children promised past the count
    count = n;
    return true;
}

bool controller_base::push_root(const unit_tree& tree, walk_stack& stack)
{
    if (tree.count < 1) return false;
    stack.size = 1;
    stack.at[0] = 0;
    return true;
}

bool controller_base::push_parent(const unit_tree& tree, walk_stack& stack)
{
    if (stack.size < 1 || stack.size >= twp::kMaxUnitDepth) return false;
    const int child = tree.first_child[stack.at[stack.size - 1]];
    if (child < 0) return false;
    stack.at[stack.size++] = child;
    return true;
}

bool controller_base::push_peer(const unit_tree& tree, walk_stack& stack)
{
    if (stack.size < 2) return false;  // the root has no peers
    const int peer = tree.next_peer[stack.at[stack.size - 1]];
    if (peer < 0) return false;
    stack.at[stack.size - 1] = peer;
    return true;
}

bool controller_base::pop(walk_stack& stack)
{
    if (stack.size < 1) return false;
    --stack.size;
    return true;
}

int controller_base::read_unit_list(tw_id_type id, uint8_t (&units)[twp::kMaxUnits])
{
    if (!supported(twp::Item::UnitList)) return -1;
    const twp::Param& p = table_[twp::Item::UnitList];
    if (p.size != twp::kMaxUnits) return -1;
    return read_param(id, p, 0, units);
}

int controller_base::find_node(tw_id_type unit_id, unit_tree& tree, int* node)
{
    const int depth = unit_id.id[3];
    const int unit = unit_id.id[4];
    if (depth < 1 || depth > twp::kMaxUnitDepth || unit >= twp::kMaxUnits) {
        twp::refuse_api(twp::kApiInvalidUnit);
        return -1;
    }
    if (!supported(twp::Item::UnitDescriptor)) return -1;
    const twp::Param& p = table_[twp::Item::UnitDescriptor];
    uint8_t bytes[twp::kUnitDescriptorSize9000] = {};
    if (p.size > sizeof bytes) return -1;
    if (read_unit_descriptor(unit_id, unit, bytes, p.size) != 0) return -1;
    if (!tree.parse(bytes, p.size)) {
        twp::refuse_api(twp::kApiBadDescriptor);
        return -1;
    }
    walk_stack stack;
    bool ok = push_root(tree, stack);
    for (int level = 1; ok && level < depth; ++level) {
        ok = push_parent(tree, stack);
        for (int peer = 0; ok && peer < unit_id.id[4 + level]; ++peer)
            ok = push_peer(tree, stack);
    }
    if (!ok) {
        twp::refuse_api(twp::kApiInvalidUnit);
        return -1;
    }
    *node = stack.at[stack.size - 1];
    return 0;
}

int controller_base::get_unit_id_list(tw_id_type id, tw_id_list_type* list)
{
    uint8_t units[twp::kMaxUnits];
    if (read_unit_list(id, units) != 0) return -1;
    std::memset(list, kUnused, sizeof *list);
    list->length = 0;
    for (int u = 0; u < twp::kMaxUnits; ++u)
        if (units[u] != kUnused) list->list[list->length++] = unit_id_of(id, u, nullptr, 1);
    return 0;
}

int controller_base::get_subunit_id_list(tw_id_type unit_id, tw_id_list_type* list)
{
    unit_tree tree;
    int n = 0;
    if (find_node(unit_id, tree, &n) != 0) return -1;
    std::memset(list, kUnused, sizeof *list);
    list->length = 0;
    const int depth = unit_id.id[3];
    uint8_t path[twp::kMaxUnitDepth] = {};
    for (int i = 0; i + 1 < depth; ++i)
        path[i] = unit_id.id[5 + i];
    int index = 0;
    for (int c = tree.first_child[n]; c >= 0 && list->length < 16; c = tree.next_peer[c], ++index) {
        path[depth - 1] = uint8_t(index);
        list->list[list->length++] = unit_id_of(unit_id, unit_id.id[4], path, depth + 1);
    }
    return 0;
}

int controller_base::get_number_of_subunits(tw_id_type unit_id, int* count)
{
    unit_tree tree;
    int n = 0;
    if (find_node(unit_id, tree, &n) != 0) return -1;
    *count = tree.node[n].children;
    return 0;
}

// One byte of the unit's node.
#define TW_UNIT_ITEM(name, type, expr)                     \
    int controller_base::name(tw_id_type unit_id, type* out) \
    {                                                      \
        unit_tree tree;                                    \
        int n = 0;                                         \
        if (find_node(unit_id, tree, &n) != 0) return -1;  \
        const TAG_TW_Unit_Node& node = tree.node[n];       \
        *out = type(expr);                                 \
        return 0;                                          \
    }
TW_UNIT_ITEM(get_unit_mode, int, node.mode)
TW_UNIT_ITEM(get_unit_capacity, uint64_t, node.capacity)
TW_UNIT_ITEM(get_unit_configuration, int, node.configuration)
TW_UNIT_ITEM(get_unit_stripe_size, int, node.stripe)
TW_UNIT_ITEM(get_unit_read_cache_state, int, (node.policy & twp::kPolicyReadCache) != 0)
TW_UNIT_ITEM(get_unit_write_cache_state, int, (node.policy & twp::kPolicyWriteCache) != 0)
TW_UNIT_ITEM(get_unit_ecc_policy, int, (node.policy & twp::kPolicyEcc) != 0)
TW_UNIT_ITEM(get_unit_auto_verify_policy, int, (node.policy & twp::kPolicyAutoVerify) != 0)
TW_UNIT_ITEM(unit_background_task_active, int,
             node.mode == twp::kModeVerifying || node.mode == twp::kModeInitializing ||
                 node.mode == twp::kModeRebuilding || node.mode == twp::kModeRebuildPaused)
TW_UNIT_ITEM(unit_is_initialized, int, node.mode != twp::kModeInitializing)
#undef TW_UNIT_ITEM

// The number of the unit of depth 1 the identifier names, once it exists.
int controller_base::get_unit_local_unit_id(tw_id_type unit_id, int* local_id)
{
    unit_tree tree;
    int n = 0;
    if (find_node(unit_id, tree, &n) != 0) return -1;
    *local_id = unit_id.id[4];
    return 0;
}

// A percentage belongs to a mode with a task; any other gives API code 55.
int controller_base::get_unit_percentage_complete(tw_id_type unit_id, int* percent)
{
    unit_tree tree;
    int n = 0;
    if (find_node(unit_id, tree, &n) != 0) return -1;
    if (!twp::modeHasPercent(tree.node[n].mode)) {
        twp::refuse_api(twp::kApiPercentConfig);
        return -1;
    }
    *percent = tree.node[n].percent > 100 ? 100 : tree.node[n].percent;
    return 0;
}

// The unit of depth 1 whose tree holds the drive in one of its slots.
int controller_base::get_unit_id_from_drive_id(tw_id_type drive_id, tw_id_type* unit_id)
{
    const int drive = drive_id.id[2];
    if (drive >= 16) {
        twp::refuse_api(10);
        return -1;
    }
    uint8_t units[twp::kMaxUnits];
    if (read_unit_list(drive_id, units) != 0) return -1;
    for (int u = 0; u < twp::kMaxUnits; ++u) {
        if (units[u] == kUnused) continue;
        const tw_id_type id = unit_id_of(drive_id, u, nullptr, 1);
        unit_tree tree;
        int n = 0;
        if (find_node(id, tree, &n) != 0) return -1;
        for (int i = 0; i < tree.count; ++i)
            if (tree.node[i].children == 0 && tree.node[i].drive == drive) {
                *unit_id = id;
                return 0;
            }
    }
    twp::refuse_api(twp::kApiNoUnitId);
    return -1;
}

int controller_base::change_unit_policy(tw_id_type unit_id, uint8_t bit, bool on)
{
    const int unit = unit_id.id[4];
    if (unit_id.id[3] != 1 || unit >= twp::kMaxUnits) {
        twp::refuse_api(twp::kApiInvalidUnit);
        return -1;
    }
    if (!supported(twp::Item::UnitPolicy)) return -1;
    const twp::Param& p = table_[twp::Item::UnitPolicy];
    uint8_t policy = 0;
    if (p.size != 1 || read_param(unit_id, p, unit, &policy) != 0) return -1;
    policy = uint8_t(on ? policy | bit : policy & ~bit);
    return locked(unit_id, [&] { return write_param(unit_id, p, unit, &policy); });
}

int controller_base::enable_unit_read_cache(tw_id_type u) { return change_unit_policy(u, twp::kPolicyReadCache, true); }
int controller_base::disable_unit_read_cache(tw_id_type u) { return change_unit_policy(u, twp::kPolicyReadCache, false); }
int controller_base::enable_unit_write_cache(tw_id_type u) { return change_unit_policy(u, twp::kPolicyWriteCache, true); }
int controller_base::disable_unit_write_cache(tw_id_type u) { return change_unit_policy(u, twp::kPolicyWriteCache, false); }
int controller_base::enable_unit_auto_verify(tw_id_type u) { return change_unit_policy(u, twp::kPolicyAutoVerify, true); }
int controller_base::disable_unit_auto_verify(tw_id_type u) { return change_unit_policy(u, twp::kPolicyAutoVerify, false); }
int controller_base::unit_set_ecc_policy_to_continue(tw_id_type u) { return change_unit_policy(u, twp::kPolicyEcc, true); }
int controller_base::unit_set_ecc_policy_to_halt(tw_id_type u) { return change_unit_policy(u, twp::kPolicyEcc, false); }
