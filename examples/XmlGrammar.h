// An XML-like grammar for TQUMAStreamParser and a tree built from its callbacks. Used by the
// stream_parser example, its tests and its benchmark.
//
// Definitions, in order of trial: element (<name attr="v">, text and children, </name>),
// empty (<name attr="v"/>), comment (<!-- ... -->), instruction (<? ... ?>), space (white space
// between nodes). The tree keeps what each node matched; white space is dropped.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <quma/StreamParser.h>

namespace quma::examples {

struct TXmlTreeNode {
  UnicodeString Kind;  // the definition's name
  UnicodeString Open, Content, Close;
  std::vector<std::unique_ptr<TXmlTreeNode>> Children;
};

class TXmlTreeBuilder : public TObject {
  QUMA_CLASS(TXmlTreeBuilder, TObject)
 public:
  std::vector<std::unique_ptr<TXmlTreeNode>> Roots;

  // Adds the grammar's definitions to Parser (its list keeps them).
  void AddDefinitions(TQUMAStreamParser* Parser) {
    const UnicodeString name = u"[A-Za-z_][\\w.:-]*";
    const UnicodeString attributes = u"(?:\\s+" + name + u"\\s*=\\s*\"[^\"<]*\")*\\s*";
    Add(Parser, u"element", u"<" + name + attributes + u">", u"</" + name + u">", u"^[^<]+", true, true);
    Add(Parser, u"empty", u"<" + name + attributes + u"/>", u"", u"", false, false);
    // A comment takes nodes so that a "--" waiting for its ">" does not end it, but only nodes of
    // a class that no definition has: nothing opens inside.
    Add(Parser, u"comment", u"<!--", u"-->", u"^(?:-?[^-])+", true, true)
        ->AllowNodeClass(TQUMAStreamedNode::StaticClass());
    Add(Parser, u"instruction", u"<\\?" + name + u"(?:\\s+[^?]*)?\\?>", u"", u"", false, false);
    Add(Parser, u"space", u"\\s+", u"", u"", false, false);
  }

  void NodeOpened(TObject*, TQUMAStreamedNode* Node) {
    auto item = std::make_unique<TXmlTreeNode>();
    item->Kind = Node->Definition()->Name();
    FOpen.push_back(std::move(item));
  }

  // Takes the completed node over: its texts move into the tree, the node itself is freed.
  void NodeClosed(TObject*, TQUMAStreamedNode* Node) {
    std::unique_ptr<TXmlTreeNode> item = std::move(FOpen.back());
    FOpen.pop_back();
    if (item->Kind != u"space") {
      Node->TakeTexts(item->Open, item->Content, item->Close);
      (FOpen.empty() ? Roots : FOpen.back()->Children).push_back(std::move(item));
    }
    Free(Node);
  }

  // One line per node, indented by depth: kind, open text, and the content without the white
  // space around it (none when that is all it has).
  static void Print(const TXmlTreeNode& Node, std::string& Out, int Depth = 0) {
    Out.append(static_cast<std::size_t>(Depth) * 2, ' ');
    Out += Utf16ToUtf8(Node.Kind) + " " + Utf16ToUtf8(Node.Open);
    const std::string content = Utf16ToUtf8(Node.Content);
    const auto first = content.find_first_not_of(" \t\r\n");
    if (first != std::string::npos)
      Out += " \"" + content.substr(first, content.find_last_not_of(" \t\r\n") + 1 - first) + "\"";
    Out += "\n";
    for (const auto& child : Node.Children) Print(*child, Out, Depth + 1);
  }

 private:
  TQUMAStreamedNodeDefinition* Add(TQUMAStreamParser* Parser, const UnicodeString& Name, const UnicodeString& Open, const UnicodeString& Close,
           const UnicodeString& Allowed, bool Text, bool Nodes) {
    auto* definition = New<TQUMAStreamedNodeDefinition>();
    definition->SetName(Name);
    definition->SetOpenMatch(Open);
    definition->SetCloseMatch(Close);
    definition->SetAllowedContentMatch(Allowed);
    definition->SetAllowsContainedText(Text);
    definition->SetAllowsContainedNodes(Nodes);
    definition->SetCanBeRootNode(true);
    definition->SetOnOpen(Bind<&TXmlTreeBuilder::NodeOpened>(this));
    definition->SetOnClose(Bind<&TXmlTreeBuilder::NodeClosed>(this));
    Parser->AddNodeDefinition(definition);
    return definition;
  }

  std::vector<std::unique_ptr<TXmlTreeNode>> FOpen;
};

}  // namespace quma::examples
