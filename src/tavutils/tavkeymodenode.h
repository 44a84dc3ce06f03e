// A tree of key segments: each node holds one segment and the modes of the
// keys that end on it. The root holds no segment.
#pragma once

#include "tavutils/tavkeymode.h"
#include "tavutils/tavtree.h"
#include "tavutils/tavvectorp.h"

class TavKeyModeNode : public TavTreeNode {
public:
    // Deepest key the tree takes: the walks recurse once per segment.
    static constexpr int kMaxKeySegments = 1024;

    // A copy of keymode, or none for a root.
    explicit TavKeyModeNode(TavKeyMode* keymode = nullptr);
    TavKeyModeNode(const TavKeyModeNode& other);
    TavKeyModeNode& operator=(const TavKeyModeNode&) = delete;
    ~TavKeyModeNode() override;

    // node must be a TavKeyModeNode holding a whole key.
    int addNode(TavTreeNode* node) override;
    // Adds the segments of keyMode from index on, or-ing its mode into the
    // end node. A key of no segment is refused with -1 and adds nothing.
    int addNode(TavKeyMode* keyMode, int index);
    // The first child whose segment equals segment, or null.
    TavKeyModeNode* findChild(const char* segment) const;
    // New key modes, which the caller deletes, for every node below, inner
    // nodes included, with their whole keys.
    void flatten(TavVectorP<TavKeyMode>* vector) const;
    void flatten(const char* prefix, TavVectorP<TavKeyMode>* vector) const;
    TavCmd getMode() const { return _keymode ? _keymode->getMode() : TavCmd::NONE; }
    TavVectorP<TavTreeNode>* getPath(TavTreeNode* node) override;
    void getPath(TavKeyModeNode* node, int index, TavVectorP<TavTreeNode>* vector);

    const TavKeyMode* getKeyMode() const { return _keymode; }
    int numChildren() const { return _subnodes ? _subnodes->size() : 0; }
    TavKeyModeNode* getChild(int i) const { return _subnodes ? (*_subnodes)[i] : nullptr; }

private:
    void copyChildren(const TavKeyModeNode& other, int depth);

    TavKeyMode* _keymode;
    TavVectorP<TavKeyModeNode>* _subnodes;
};
