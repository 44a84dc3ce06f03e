#include "tavutils/tavkeymodenode.h"

#include <cstring>
#include <string>

#include "tavutils/tav_error.h"

TavKeyModeNode::TavKeyModeNode(TavKeyMode* keymode) : _keymode(nullptr), _subnodes(nullptr)
{
    if (!keymode) return;
    try {
        _keymode = new TavKeyMode(*keymode);
    } catch (...) {
        throw tav_enomem("TavKeyModeNode::TavKeyModeNode(TavKeyMode *)");
    }
}

TavKeyModeNode::TavKeyModeNode(const TavKeyModeNode& other) : TavTreeNode(), _keymode(nullptr), _subnodes(nullptr)
{
    try {
        if (other._keymode) _keymode = new TavKeyMode(*other._keymode);
        copyChildren(other, 0);
    } catch (...) {
        delete _keymode;
        _keymode = nullptr;
        throw tav_enomem("TavKeyModeNode::TavKeyModeNode(TavKeyModeNode &)");
    }
}

void TavKeyModeNode::copyChildren(const TavKeyModeNode& other, int depth)
{
    if (!other._subnodes || depth > kMaxKeySegments) return;
    _subnodes = new TavVectorP<TavKeyModeNode>(5);
    for (int i = 0; i < other._subnodes->size(); ++i) {
        TavKeyModeNode* source = (*other._subnodes)[i];
        TavKeyModeNode* child = new TavKeyModeNode(source->_keymode);
        _subnodes->add(child);
        child->copyChildren(*source, depth + 1);
    }
}

TavKeyModeNode::~TavKeyModeNode()
{
    if (_subnodes) {
        for (int i = 0; i < _subnodes->size(); ++i) delete (*_subnodes)[i];
        delete _subnodes;
    }
    delete _keymode;
}

int TavKeyModeNode::addNode(TavTreeNode* node)
{
    auto* keyNode = dynamic_cast<TavKeyModeNode*>(node);
    if (!keyNode) return -1;
    return addNode(keyNode->_keymode, 0);
}

// The walk goes down one child per segment as the recursive form does, but
// moves along the key once instead of searching it anew for each segment.
int TavKeyModeNode::addNode(TavKeyMode* keyMode, int index)
{
    if (!keyMode || !keyMode->getKey()) return -1;
    int count = keyMode->numKeySegments();
    // A key of no segment ("", "/", no slash) would hand a null segment on.
    if (count < 1 || count > kMaxKeySegments || index < 0 || index >= count) return -1;
    const char* slash = std::strchr(keyMode->getKey(), '/');
    for (int i = 0; slash && i < index; ++i) slash = std::strchr(slash + 1, '/');
    try {
        TavKeyModeNode* node = this;
        for (int i = index; i < count && slash; ++i) {
            const char* start = slash + 1;
            size_t length = std::strcspn(start, "/");
            std::string segment(start, length);
            slash = start[length] == '/' ? start + length : nullptr;

            if (!node->_subnodes) node->_subnodes = new TavVectorP<TavKeyModeNode>(5);
            TavKeyModeNode* child = node->findChild(segment.c_str());
            if (!child) {
                TavKeyMode part(segment.c_str(), TavCmd::NONE);
                child = new TavKeyModeNode(&part);
                node->_subnodes->add(child);
            }
            if (i + 1 == count) child->_keymode->setMode(child->_keymode->getMode() | keyMode->getMode());
            node = child;
        }
    } catch (const tav_enomem&) {
        throw;
    } catch (...) {
        throw tav_enomem("new failed");
    }
    return 0;
}

TavKeyModeNode* TavKeyModeNode::findChild(const char* segment) const
{
    if (!_subnodes || !segment) return nullptr;
    for (int i = 0; i < _subnodes->size(); ++i) {
        TavKeyModeNode* child = (*_subnodes)[i];
        if (child->_keymode && child->_keymode->equals(segment)) return child;
    }
    return nullptr;
}

void TavKeyModeNode::flatten(TavVectorP<TavKeyMode>* vector) const { flatten("/", vector); }

void TavKeyModeNode::flatten(const char* prefix, TavVectorP<TavKeyMode>* vector) const
{
    if (!vector) return;
    std::string path = prefix ? prefix : "";
    try {
        if (_keymode) {
            path += _keymode->getKey() ? _keymode->getKey() : "";
            path += '/';
            vector->add(new TavKeyMode(path.c_str(), _keymode->getMode()));
        }
    } catch (...) {
        throw tav_enomem("new failed");
    }
    if (!_subnodes) return;
    for (int i = 0; i < _subnodes->size(); ++i) (*_subnodes)[i]->flatten(path.c_str(), vector);
}

TavVectorP<TavTreeNode>* TavKeyModeNode::getPath(TavTreeNode* node)
{
    TavVectorP<TavTreeNode>* vector;
    try {
        vector = new TavVectorP<TavTreeNode>(10);
    } catch (...) {
        throw tav_enomem("TavKeyModeNode::getPath");
    }
    auto* keyNode = dynamic_cast<TavKeyModeNode*>(node);
    if (keyNode) getPath(keyNode, -1, vector);
    return vector;
}

void TavKeyModeNode::getPath(TavKeyModeNode* node, int index, TavVectorP<TavTreeNode>* vector)
{
    if (!node || !vector) return;
    char* segment = node->_keymode ? node->_keymode->getKeySegment(index) : nullptr;
    if (_keymode && segment) {
        bool onPath = _keymode->lessThanOrEquals(segment);
        delete[] segment;
        if (!onPath) return;
        vector->add(this);
    } else {
        delete[] segment;
    }
    if (!_subnodes) return;
    for (int i = 0; i < _subnodes->size(); ++i) (*_subnodes)[i]->getPath(node, index + 1, vector);
}
