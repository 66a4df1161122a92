#pragma once
// The value types and operators the math-operator tests iterate over, written once, with
// the short names parameterized tests put into their case names (letters, digits and
// underscores only, as GoogleTest requires).

#include "cp_ir_details.h"
#include "kr_base_types.h"
#include "scalar_model.h"

#include <iterator>
#include <string>

namespace OxTest
{
	// A source type that has a kernel: how many 32-bit components an element has and
	// which kernel family runs it.
	struct SKernelType
	{
		Orvex::EBaseTypeID m_Type;
		Orvex::u32 m_Components;
		EModelKind m_Kind;
		const char *m_Name;
	};

	inline constexpr SKernelType kFloatKernelTypes[] = {
		{Orvex::BaseType_Float, 1, EModelKind::Float, "Float"},
		{Orvex::BaseType_Float2, 2, EModelKind::Float, "Float2"},
		{Orvex::BaseType_Float3, 3, EModelKind::Float, "Float3"},
		{Orvex::BaseType_Float4, 4, EModelKind::Float, "Float4"},
		{Orvex::BaseType_Quaternion, 4, EModelKind::Float, "Quaternion"},
	};

	inline constexpr SKernelType kIntKernelTypes[] = {
		{Orvex::BaseType_I32, 1, EModelKind::Int, "I32"},
		{Orvex::BaseType_Int2, 2, EModelKind::Int, "Int2"},
		{Orvex::BaseType_Int3, 3, EModelKind::Int, "Int3"},
		{Orvex::BaseType_Int4, 4, EModelKind::Int, "Int4"},
	};

	// Bools run through the integer kernels of their component count.
	inline constexpr SKernelType kBoolKernelTypes[] = {
		{Orvex::BaseType_Bool, 1, EModelKind::Int, "Bool"},
		{Orvex::BaseType_Bool2, 2, EModelKind::Int, "Bool2"},
		{Orvex::BaseType_Bool3, 3, EModelKind::Int, "Bool3"},
		{Orvex::BaseType_Bool4, 4, EModelKind::Int, "Bool4"},
	};

	// Every type with a kernel: floats (quaternion included), ints, bools.
	inline constexpr SKernelType kKernelTypes[] = {
		kFloatKernelTypes[0], kFloatKernelTypes[1], kFloatKernelTypes[2], kFloatKernelTypes[3], kFloatKernelTypes[4],
		kIntKernelTypes[0], kIntKernelTypes[1], kIntKernelTypes[2], kIntKernelTypes[3],
		kBoolKernelTypes[0], kBoolKernelTypes[1], kBoolKernelTypes[2], kBoolKernelTypes[3],
	};
	static_assert(std::size(kKernelTypes) == 13, "5 float, 4 int and 4 bool types have a kernel");

	inline const char *KernelTypeName(Orvex::EBaseTypeID type)
	{
		for (const SKernelType &t : kKernelTypes)
			if (t.m_Type == type)
				return t.m_Name;
		return "NoKernel";
	}

	using EListOp = Orvex::Compiler::IR::SOp_MathOp::EOp;
	using SListOp = Orvex::Compiler::IR::SOp_MathOp;

	// The operators with a float kernel.
	inline constexpr EListOp kFloatOps[] = {
		SListOp::Op_Add, SListOp::Op_Sub, SListOp::Op_Mul, SListOp::Op_Div,
		SListOp::Op_Mod, SListOp::Op_Neg,
		SListOp::Op_Cmp_Lower, SListOp::Op_Cmp_LowerOrEqual, SListOp::Op_Cmp_Greater,
		SListOp::Op_Cmp_GreaterOrEqual, SListOp::Op_Cmp_Equal, SListOp::Op_Cmp_NotEqual};

	// The float operators of the common two-stream kernel (everything but modulo and negation).
	inline constexpr EListOp kFloatStreamOps[] = {
		SListOp::Op_Add, SListOp::Op_Sub, SListOp::Op_Mul, SListOp::Op_Div,
		SListOp::Op_Cmp_Lower, SListOp::Op_Cmp_LowerOrEqual, SListOp::Op_Cmp_Greater,
		SListOp::Op_Cmp_GreaterOrEqual, SListOp::Op_Cmp_Equal, SListOp::Op_Cmp_NotEqual};

	inline constexpr EListOp kCompareOps[] = {
		SListOp::Op_Cmp_Lower, SListOp::Op_Cmp_LowerOrEqual, SListOp::Op_Cmp_Greater,
		SListOp::Op_Cmp_GreaterOrEqual, SListOp::Op_Cmp_Equal, SListOp::Op_Cmp_NotEqual};

	inline constexpr EListOp kShiftOps[] = {SListOp::Op_Bitwise_ShiftLeft, SListOp::Op_Bitwise_ShiftRight, SListOp::Op_Bitwise_ShiftRightLogical};

	// Operator values without a float kernel: the bitwise operators and values past the set
	// (the bytecode's operator byte can hold any of 0..255).
	inline constexpr Orvex::s32 kNoFloatKernelOps[] = {6, 7, 8, 9, 10, 11, 12, 19, 100, 255};

	// Short operator names for messages and case names; "Op<value>" past the set.
	inline std::string OpMnemonic(Orvex::s32 op)
	{
		static const char *const names[] = {
			"Add", "Sub", "Mul", "Div", "Mod", "Neg", "Shl", "Sar", "Shr", "And", "Or", "Xor", "Not",
			"LT", "LE", "GT", "GE", "EQ", "NE"};
		static_assert(std::size(names) == SListOp::__MaxOps, "one name per operator");
		if (op >= 0 && op < Orvex::s32(std::size(names)))
			return names[op];
		return op < 0 ? "OpMinus" + std::to_string(-Orvex::s64(op)) : "Op" + std::to_string(op);
	}

	// The shape of an instruction's two operands: each a stream (one element per
	// evaluation) or a constant (one element read for every evaluation).
	enum class EOperandShape
	{
		StreamStream,
		ConstStream,	// source 0 constant
		StreamConst,	// source 1 constant
		ConstConst,
	};

	inline const char *ShapeName(EOperandShape shape)
	{
		switch (shape)
		{
		case EOperandShape::StreamStream: return "StreamStream";
		case EOperandShape::ConstStream: return "ConstStream";
		case EOperandShape::StreamConst: return "StreamConst";
		case EOperandShape::ConstConst: return "ConstConst";
		}
		return "Unknown";
	}

	inline bool Src0Constant(EOperandShape shape) { return shape == EOperandShape::ConstStream || shape == EOperandShape::ConstConst; }
	inline bool Src1Constant(EOperandShape shape) { return shape == EOperandShape::StreamConst || shape == EOperandShape::ConstConst; }

	inline constexpr EOperandShape kFastPathShapes[] = {EOperandShape::StreamStream, EOperandShape::ConstStream, EOperandShape::StreamConst};
	inline constexpr EOperandShape kAllShapes[] = {EOperandShape::StreamStream, EOperandShape::ConstStream, EOperandShape::StreamConst, EOperandShape::ConstConst};
}
