#include "tavutils/tavtree.h"

TavTreeNode::~TavTreeNode() = default;

TavTree::TavTree(TavTreeNode* root) : _root(root) {}

TavTree::~TavTree() { delete _root; }

void TavTree::setRoot(TavTreeNode* root)
{
    if (root == _root) return;
    delete _root;
    _root = root;
}
