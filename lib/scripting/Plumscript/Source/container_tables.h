// What the containers' classes have in common: the tables of the interfaces that several of them
// implement, made from the functions of one.
#pragma once

#include "ps_native.h"
#include "psc.h"

template <auto Reset, auto Next, auto IsNext, auto IsEmpty>
struct psEnumTables {
  static constexpr fundes kFunctions[] = {
      psMethod<Reset>("Reset"),
      psMethod<Next>("Next"),
      psMethod<IsNext>("IsNext"),
      psMethod<IsEmpty>("IsEmpty"),
      {},
  };
  static constexpr psIfEnum kMethods = {Reset, Next, IsNext, IsEmpty};
  static constexpr psInterface kInterface = {"ifEnum", kFunctions, &kMethods};
};

template <auto Peek, auto Pop, auto Push, auto Shift, auto Unshift, auto Delete, auto Count,
          auto Clear, auto Append>
struct psArrayTables {
  static constexpr fundes kFunctions[] = {
      psMethod<Peek>("Peek"),       psMethod<Pop>("Pop"),
      psMethod<Push>("Push"),       psMethod<Shift>("Shift"),
      psMethod<Unshift>("Unshift"), psMethod<Delete>("Delete"),
      psMethod<Count>("Count"),     psMethod<Clear>("Clear"),
      psMethod<Append>("Append"),   {},
  };
  static constexpr psIfArray kMethods = {Peek,   Pop,   Push,  Shift, Unshift,
                                         Delete, Count, Clear, Append};
  static constexpr psInterface kInterface = {"ifArray", kFunctions, &kMethods};
};
