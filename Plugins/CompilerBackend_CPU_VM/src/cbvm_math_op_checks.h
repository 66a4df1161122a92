#pragma once
// The operands of one math-op instruction, decoded and resolved in one place, and every
// check made of them written once: a predicate and its exact assertion text.
//
// A check runs under a policy, and the caller's policy decides what failing means:
//   - TReportPolicy<path>: the entry points. Each check is an assertion site of its own
//     (one per path), reported through the handler, and execution goes on with the
//     values at hand. The register-id and type-size checks are the accessors' own
//     (CVMRegID::ToType, SelectRegister, DataSizeInBytes), called in the path's order.
//   - SProbePolicy: the fast paths. The first failing check stops the resolution, and
//     the instruction goes the reporting way instead (which then reports it).
//   - SCollectPolicy: the verifier and the path-difference classifier. Every check is
//     evaluated and the failing ones are collected, nothing is reported.
// So the verifier evaluates exactly the checks the entry points make: what it accepts,
// they cannot report.

#include "cbvm_math_op_decoder.h"
#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"
#include "cp_ir_details.h"
#include "kr_assert.h"
#include "kr_base_types.h"
#include "simd/sse/simd_vector.h"

#include <type_traits>

namespace Orvex
{
	namespace MathOp
	{
		using SOp_MathOp = Compiler::IR::SOp_MathOp;
		using RegisterEntry = CCBCPUMetaRegisters::SRegister;

		enum EPath : u8
		{
			Path_Standard = 0,
			Path_Low = 1,
		};

		// Decoding an instruction's fields (IsMathOpOpcode, InstructionSize,
		// RegisterBlockOffset, OperatorOf, ReadOperandIds): the decoder's inline primitives,
		// cbvm_math_op_decoder.h.

		//--------------------------------------------------------------------------------
		// The checks. Each is a type with its assertion text (per path where the paths'
		// texts differ); its predicate is written where the resolution evaluates it.

		struct SCheck_Opcode
		{
			static constexpr const char *kText[2] = {
				"bytecode[0] == CBVM::Opcode_MathOp || bytecode[0] == CBVM::Opcode_MathOpAdd || bytecode[0] == CBVM::Opcode_MathOpSub || bytecode[0] == CBVM::Opcode_MathOpMul || bytecode[0] == CBVM::Opcode_MathOpDiv",
				"bytecode[0] == CBVM::Opcode_MathOp || bytecode[0] == CBVM::Opcode_MathOpAdd || bytecode[0] == CBVM::Opcode_MathOpSub || bytecode[0] == CBVM::Opcode_MathOpMul || bytecode[0] == CBVM::Opcode_MathOpDiv"};
		};
		// Destination, source 0 and source 1 ids well-formed: what ToType, ToSlot and ToBank
		// assert (ToType's two checks both hold exactly when the id is well-formed).
		struct SCheck_DstId { static constexpr const char *kText[2] = {"_ValidAndWellFormed()", "_ValidAndWellFormed()"}; };
		struct SCheck_Src0Id { static constexpr const char *kText[2] = {"_ValidAndWellFormed()", "_ValidAndWellFormed()"}; };
		struct SCheck_Src1Id { static constexpr const char *kText[2] = {"_ValidAndWellFormed()", "_ValidAndWellFormed()"}; };
		// A type of known size: what DataSizeInBytes asserts.
		struct SCheck_DstTypeSize { static constexpr const char *kText[2] = {"size != 0 || typeID == BaseType_Evolved", "size != 0 || typeID == BaseType_Evolved"}; };
		struct SCheck_SrcTypeSize { static constexpr const char *kText[2] = {"size != 0 || typeID == BaseType_Evolved", "size != 0 || typeID == BaseType_Evolved"}; };
		// The register-size checks name their operand in a report's context.
		struct SCheck_DstSize
		{
			static constexpr const char *kOperand = "destination";
			static constexpr const char *kText[2] = {"reg.m_Size >= registers.m_StreamDimensions * stride || (reg.m_Size >= stride && mt < Compiler::MetaType_Instance)",
													 "reg.m_Size >= registers.m_StreamDimensions * dstStride || (reg.m_Size >= dstStride && mt < Compiler::MetaType_Instance)"};
		};
		struct SCheck_Src0Size
		{
			static constexpr const char *kOperand = "source 0";
			static constexpr const char *kText[2] = {"reg0.m_Size >= evalCount * stride0", "reg0.m_Size >= evalCount * stride0"};
		};
		struct SCheck_OperandCount
		{
			static constexpr const char *kText[2] = {"m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1)",
													 "m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1)"};
		};
		struct SCheck_SourceTypes { static constexpr const char *kText[2] = {"m_SrcReg1.ToType() == m_SrcType0", "m_SrcReg1.ToType() == m_SrcType"}; };
		struct SCheck_Src1Size
		{
			static constexpr const char *kOperand = "source 1";
			static constexpr const char *kText[2] = {"reg1.m_Size >= evalCount * stride1", "reg1.m_Size >= evalCount * stride1"};
		};

		//--------------------------------------------------------------------------------
		// The selectors' and kernels' checks on the standard path, as predicates. The
		// kernels assert them; KernelChecks (below) evaluates them for a resolved
		// instruction, for the policies that do not run the kernels.

		// Tags of the selectors' and kernels' checks (no text here: each kernel site reports
		// its own, naming its own variables).
		struct SCheck_KernelRow {};			// the dispatch: "Control point shouldn't be reached."
		struct SCheck_FloatOperator {};		// the float selector: no float kernel (bitwise operators)
		struct SCheck_IntOperator {};		// the integer kernel: an operator value past the set
		struct SCheck_DstAligned {};		// the selectors: every pointer 32-byte aligned
		struct SCheck_Src0Aligned {};
		struct SCheck_Src1Aligned {};
		struct SCheck_DstPresent {};		// the selectors and kernels: pointers present
		struct SCheck_Src0Present {};
		struct SCheck_Src1Present {};
		struct SCheck_DstElementSize {};	// "stride == _Dimension * sizeof(s32)", "stride == sizeof(_Type)"
		struct SCheck_ModOneConstant {};	// "(stride0 == 0) != (stride1 == 0)"
		struct SCheck_NegOfStream {};		// "stride == sizeof(_Type) && stride0 == sizeof(_Type)"
		struct SCheck_ShiftCount {};		// "bits <= 31"

		// The predicates, shared by the kernels and KernelChecks.
		struct SKernelPredicates
		{
			// The integer selector, float modulo and negation write a packed destination:
			// its element size must be the sources'.
			static constexpr bool DestinationPacked(u32 dstStride, u32 elementBytes) { return dstStride == elementBytes; }
			// Float modulo of two broadcast operands is not a stream operation.
			static constexpr bool ModOneConstant(u32 stride0, u32 stride1) { return (stride0 == 0) != (stride1 == 0); }
			// Float negation takes a packed stream into a packed stream.
			static constexpr bool NegOfStream(u32 dstStride, u32 stride0, u32 elementBytes) { return dstStride == elementBytes && stride0 == elementBytes; }
			// The four words of any vector of a broadcast constant block are equal: every
			// component of the constant is ('components' 4 for a block itself).
			static bool UniformLanes(const s32 *constant, u32 components)
			{
				for (u32 i = 1; i < 4; ++i)
					if (constant[i % components] != constant[0])
						return false;
				return true;
			}
			// The integer kernel runs a broadcast right operand by whole 12-integer blocks
			// when at least one block is evaluated and the constant is uniform.
			static bool UniformBlocks(u32 stride1, u64 ints, const s32 *constant, u32 components)
			{
				return stride1 == 0 && ints >= 12 && UniformLanes(constant, components);
			}
		};

		//--------------------------------------------------------------------------------
		// What a report made while an instruction is checked and run on the reporting way
		// says of it (its Assert::CReportContext): the instruction's offset, which is the
		// register file's m_InstructionPointer (the interpreter and the batch runner set it
		// before each call; a host calling an entry point itself sets it the same way), and
		// while a register-size check reports, the register and its sizes.
		struct SInstructionReport
		{
			// The register's fields are read only while m_Operand is set, and written just
			// before: left unset here, they cost a Low path instruction nothing.
			explicit SInstructionReport(const CCBCPUMetaRegisters *registers) : m_Registers(registers) {}

			const CCBCPUMetaRegisters *m_Registers;
			const char *m_Operand = nullptr;	// set while a register-size check reports
			u32 m_RegisterBits;
			u64 m_Size;
			u64 m_Needed;
		};
		// "instruction at offset 24, source 0 stream.1:float3 holds 64 bytes, needs 12000"
		// (an Assert::FnDescribe; cbvm_math_op_report_context.cpp).
		u32 DescribeInstruction(const void *report, char *text, u32 capacity);

		//--------------------------------------------------------------------------------
		// Policies.
		//
		// CheckSize is Check for the register-size checks: the register's bits, its size and
		// the size the instruction needs come along for a report.

		// The accessors' checks are reported by the accessors themselves (their sites are
		// shared by every caller); the policy's own sites are one per path and check.
		template <EPath _Path>
		struct TReportPolicy
		{
			static constexpr bool kStopAtFirst = false;
			static constexpr bool kAccessorsReport = true;
			static constexpr bool kResolvesRegisters = true;

			// The policy's reports name the instruction at the registers' instruction pointer;
			// the context that says so is set only for a report, so that the Low path, which
			// reports through this policy on every instruction, pays nothing for it.
			explicit TReportPolicy(const CCBCPUMetaRegisters &registers) : m_Report(&registers) {}

			// A context naming the instruction for every report made while it lives, the
			// accessors' and the kernels' too: for a caller that is cold already (the
			// standard path's checked entry).
			Assert::CReportContext InstructionContext() const { return Assert::CReportContext(&DescribeInstruction, &m_Report); }

			// 'holds' is evaluated only while the site is not silenced, as OX_ASSERT does.
			template <typename _Check, typename _FnHolds>
			bool Check(const _FnHolds &holds)
			{
				return _Checked<_Check>(holds, [] {});
			}

			// The register's fields are written only for a report: the Low path checks every
			// instruction's sizes, and these stores, to an object a report reads, would cost
			// it more than the check.
			template <typename _Check, typename _FnHolds>
			bool CheckSize(const _FnHolds &holds, u32 registerBits, u64 size, u64 needed)
			{
				return _Checked<_Check>(holds, [&] {
					m_Report.m_Operand = _Check::kOperand;
					m_Report.m_RegisterBits = registerBits;
					m_Report.m_Size = size;
					m_Report.m_Needed = needed;
				});
			}

		private:
			// One site per check and call (the lambdas' types differ): 'beforeReport' fills
			// what the report says of the instruction.
			template <typename _Check, typename _FnHolds, typename _FnBeforeReport>
			bool _Checked(const _FnHolds &holds, const _FnBeforeReport &beforeReport)
			{
				static Assert::CSiteFlag s_Site;
				if (s_Site.Ignored() || holds())
					return true;
				beforeReport();
				{
					const Assert::CReportContext context(&DescribeInstruction, &m_Report);
					Assert::_Conclude(s_Site, Assert::EvalAssert(__FILE__, OX_FUNCTION, __LINE__, _Check::kText[_Path], _Check::kText[_Path], _Check::kText[_Path]));
				}
				m_Report.m_Operand = nullptr;
				return false;
			}

			SInstructionReport m_Report;
		};

		struct SProbePolicy
		{
			static constexpr bool kStopAtFirst = true;
			static constexpr bool kAccessorsReport = false;
			static constexpr bool kResolvesRegisters = true;

			template <typename _Check, typename _FnHolds>
			OX_ALWAYS_INLINE bool Check(const _FnHolds &holds) { return holds(); }
			template <typename _Check, typename _FnHolds>
			OX_ALWAYS_INLINE bool CheckSize(const _FnHolds &holds, u32, u64, u64) { return holds(); }
		};

		// Collects the failing checks by type: Failed<SCheck_DstSize>() and so on.
		// _Registers false: the instruction alone, without a register file (the checks of
		// register entries, sizes and pointers are left out).
		template <bool _Registers>
		struct TCollectPolicy
		{
			static constexpr bool kStopAtFirst = false;
			static constexpr bool kAccessorsReport = false;
			static constexpr bool kResolvesRegisters = _Registers;

			template <typename _Check, typename _FnHolds>
			bool Check(const _FnHolds &holds)
			{
				const bool ok = holds();
				if (!ok)
					m_Failed |= _Bit<_Check>();
				return ok;
			}
			template <typename _Check, typename _FnHolds>
			bool CheckSize(const _FnHolds &holds, u32, u64, u64) { return Check<_Check>(holds); }

			template <typename _Check>
			bool Failed() const { return (m_Failed & _Bit<_Check>()) != 0; }
			bool AnyFailed() const { return m_Failed != 0; }

		private:
			template <typename _Check>
			static constexpr u32 _Bit()
			{
				using L = TCheckList<SCheck_Opcode, SCheck_DstId, SCheck_Src0Id, SCheck_Src1Id, SCheck_DstTypeSize, SCheck_SrcTypeSize, SCheck_DstSize,
									 SCheck_Src0Size, SCheck_OperandCount, SCheck_SourceTypes, SCheck_Src1Size, SCheck_KernelRow, SCheck_FloatOperator,
									 SCheck_IntOperator, SCheck_DstAligned, SCheck_Src0Aligned, SCheck_Src1Aligned, SCheck_DstPresent, SCheck_Src0Present,
									 SCheck_Src1Present, SCheck_DstElementSize, SCheck_ModOneConstant, SCheck_NegOfStream, SCheck_ShiftCount>;
				static_assert(L::template IndexOf<_Check>() < 32, "every check has a bit");
				return 1u << L::template IndexOf<_Check>();
			}

			template <typename... _Checks>
			struct TCheckList
			{
				template <typename _Check>
				static constexpr u32 IndexOf()
				{
					constexpr bool same[] = {std::is_same_v<_Check, _Checks>...};
					for (u32 i = 0; i < sizeof...(_Checks); ++i)
						if (same[i])
							return i;
					return 31;
				}
			};

			u32 m_Failed = 0;
		};
		using SCollectPolicy = TCollectPolicy<true>;
		using SCollectStructurePolicy = TCollectPolicy<false>;

		//--------------------------------------------------------------------------------
		// Resolution: ids, register entries, element count and strides, with their checks,
		// in the order each path makes them.

		struct SResolvedMathOp
		{
			void *m_EvalInto;
			u32 m_Stride;		// destination element size (the standard path's stride)
			u32 m_EvalCount;
			const void *m_Data0;
			u32 m_Stride0;		// 0: one value broadcast to every element
			const void *m_Data1;
			u32 m_Stride1;
			EBaseTypeID m_SrcType0;
		};

		// An unchecked id read for the probing and collecting policies, the accessor for the
		// reporting one.
		template <typename _Policy>
		struct TIdReader
		{
			static OX_ALWAYS_INLINE EBaseTypeID Type(CVMRegID id) { return _Policy::kAccessorsReport ? id.ToType() : CVMRegID::TypeOf(id.Bits()); }
			static OX_ALWAYS_INLINE Compiler::EMetaType Bank(CVMRegID id) { return _Policy::kAccessorsReport ? id.ToBank() : CVMRegID::BankOf(id.Bits()); }
			static OX_ALWAYS_INLINE const RegisterEntry &Select(const CCBCPUMetaRegisters &registers, CVMRegID id)
			{
				static constexpr RegisterEntry kNoRegister = {nullptr, 0};
				if constexpr (!_Policy::kResolvesRegisters)
					return kNoRegister;
				else
					return _Policy::kAccessorsReport ? registers.SelectRegister(id) : registers.SelectWellFormed(id.Bits());
			}
			static OX_ALWAYS_INLINE u32 Size(EBaseTypeID type) { return _Policy::kAccessorsReport ? CCBCPUMetaRegisters::DataSizeInBytes(type) : BaseTypeInfo(type).m_Size; }
		};

#define OX_MATHOP_CHECK(_CheckType, ...) \
	do { \
		if (!policy.template Check<_CheckType>([&]() OX_ALWAYS_INLINE -> bool { return (__VA_ARGS__); }) && _Policy::kStopAtFirst) \
			return false; \
	} while (0)
#define OX_MATHOP_SIZE_CHECK(_CheckType, _RegisterBits, _Size, _Needed, ...) \
	do { \
		if (!policy.template CheckSize<_CheckType>([&]() OX_ALWAYS_INLINE -> bool { return (__VA_ARGS__); }, (_RegisterBits), (_Size), (_Needed)) && \
			_Policy::kStopAtFirst) \
			return false; \
	} while (0)

		// Resolves the operands at bytecode + wb for 'op' on '_Path'. With a stopping policy
		// it returns false at the first failing check; otherwise it always returns true and
		// 'out' holds the values computed with what was at hand (an undersized register is
		// still used), as the entry points go on after a report.
		//
		// The paths differ on purpose in two places: the standard path reads every source
		// as a one-element stream when one element is evaluated (the Low path broadcasts a
		// Constant or Normal source by its bank alone), and the Low path has no destination
		// stride (it writes densely; the destination's size is only checked).
		//
		// _OneElement: the caller has found a well-formed Constant or Normal destination
		// (the one-element path), so one element is evaluated; it runs KernelChecks next,
		// which implies the type-size checks (a type with a kernel has a size, and the
		// destination must have the source's): they are left to it.
		template <EPath _Path, typename _Policy, bool _OneElement = false>
		inline OX_ALWAYS_INLINE bool ResolveOperands(_Policy &policy, const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op, SResolvedMathOp &out)
		{
			using Ids = TIdReader<_Policy>;
			OX_MATHOP_CHECK(SCheck_Opcode, IsMathOpOpcode(bytecode[0]));
			const SOperandIds ids = ReadOperandIds(bytecode, wb);
			const CVMRegID m_DstReg = {s32(ids.m_Dst)};
			const CVMRegID m_SrcReg0 = {s32(ids.m_Src0)};
			const CVMRegID m_SrcReg1 = {s32(ids.m_Src1)};
			if constexpr (!_Policy::kAccessorsReport)
			{
				OX_MATHOP_CHECK(SCheck_DstId, m_DstReg._ValidAndWellFormed());
				OX_MATHOP_CHECK(SCheck_Src0Id, m_SrcReg0._ValidAndWellFormed());
			}

			// Types, entries and banks, in each path's order (the accessors report in it).
			EBaseTypeID m_DstType, m_SrcType0;
			if constexpr (_Path == Path_Standard)
			{
				m_DstType = Ids::Type(m_DstReg);
				m_SrcType0 = Ids::Type(m_SrcReg0);
			}
			else
				m_SrcType0 = Ids::Type(m_SrcReg0);
			const RegisterEntry &reg = Ids::Select(registers, m_DstReg);
			const RegisterEntry &reg0 = Ids::Select(registers, m_SrcReg0);
			static_assert(!_OneElement || !_Policy::kAccessorsReport, "the one-element path only probes");
			const Compiler::EMetaType mt = _OneElement ? Compiler::MetaType_Constant : Ids::Bank(m_DstReg);
			const u32 evalCount = mt >= Compiler::MetaType_Instance ? registers.m_StreamDimensions : 1;
			// Element sizes are at most 16; the size checks multiply in 64 bits so that a huge
			// m_StreamDimensions cannot wrap past them (the kernels take them as u32).
			u64 stride, typeSize, stride0;
			if constexpr (_Path == Path_Standard)
			{
				const Compiler::EMetaType mt0 = Ids::Bank(m_SrcReg0);
				stride = Ids::Size(m_DstType);
				typeSize = Ids::Size(m_SrcType0);
				stride0 = (evalCount == 1 || mt0 >= Compiler::MetaType_Instance) ? typeSize : 0;
			}
			else
			{
				typeSize = Ids::Size(m_SrcType0);
				stride0 = Ids::Bank(m_SrcReg0) >= Compiler::MetaType_Instance ? typeSize : 0;
				m_DstType = Ids::Type(m_DstReg);
				stride = Ids::Size(m_DstType);
			}
			if constexpr (!_Policy::kAccessorsReport && !_OneElement)
			{
				OX_MATHOP_CHECK(SCheck_DstTypeSize, stride != 0);
				OX_MATHOP_CHECK(SCheck_SrcTypeSize, typeSize != 0);
			}

			if constexpr (_Policy::kResolvesRegisters)
			{
				// (A Constant or Normal destination needs one element, or none for an empty stream.)
				const u64 dstNeeded = registers.m_StreamDimensions * stride;
				OX_MATHOP_SIZE_CHECK(SCheck_DstSize, ids.m_Dst, reg.m_Size, mt < Compiler::MetaType_Instance && stride < dstNeeded ? stride : dstNeeded,
									 reg.m_Size >= registers.m_StreamDimensions * stride || (reg.m_Size >= stride && mt < Compiler::MetaType_Instance));
				OX_MATHOP_SIZE_CHECK(SCheck_Src0Size, ids.m_Src0, reg0.m_Size, evalCount * stride0, reg0.m_Size >= evalCount * stride0);
			}
			OX_MATHOP_CHECK(SCheck_OperandCount, m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1));

			u64 stride1 = 0;
			const void *data1 = nullptr;
			if (m_SrcReg1.Valid())
			{
				if constexpr (!_Policy::kAccessorsReport)
					OX_MATHOP_CHECK(SCheck_Src1Id, m_SrcReg1._ValidAndWellFormed());
				OX_MATHOP_CHECK(SCheck_SourceTypes, Ids::Type(m_SrcReg1) == m_SrcType0);
				const RegisterEntry &reg1 = Ids::Select(registers, m_SrcReg1);
				// Source 0's type size, deliberately: the sources are meant to share a type.
				// (The standard path does not read the bank of a one-element evaluation.)
				stride1 = ((_Path == Path_Standard && evalCount == 1) || Ids::Bank(m_SrcReg1) >= Compiler::MetaType_Instance) ? typeSize : 0;
				if constexpr (_Policy::kResolvesRegisters)
					OX_MATHOP_SIZE_CHECK(SCheck_Src1Size, ids.m_Src1, reg1.m_Size, evalCount * stride1, reg1.m_Size >= evalCount * stride1);
				data1 = reg1.m_RawData;
			}
			out = {reg.m_RawData, u32(stride), evalCount, reg0.m_RawData, u32(stride0), data1, u32(stride1), m_SrcType0};
			return true;
		}

		//--------------------------------------------------------------------------------
		// The selectors' and kernels' checks on the standard path, as predicates. The
		// kernels assert them (with the texts their sites report, which name the kernel's
		// own variables); KernelChecks evaluates them for a resolved instruction, for the
		// policies that do not run the kernels.

		// The selectors' checks of their operands, each an assertion: pointers 32-byte
		// aligned and present, source strides of a packed element or 0. Every selector
		// (the standard integer one, both Low ones) makes them with its own sites: one per
		// path, element kind and dimension, as each template instance has its own.
		template <EPath _Path, typename _Scalar, int _Dimension>
		void AssertSelectorOperands(const void *evalInto, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			static_assert(std::is_same_v<_Scalar, float> || std::is_same_v<_Scalar, s32>, "float or 32-bit integer components");
			constexpr bool kFloat = std::is_same_v<_Scalar, float>;
			OX_ASSERT_ALIGNED32(evalInto);
			OX_ASSERT_ALIGNED32(datasrc0);
			OX_ASSERT_ALIGNED32(datasrc1);
			OX_ASSERT(evalInto != null);
			OX_ASSERT(datasrc0 != null);
			OX_ASSERT_TEXT(stride0 == _Dimension * sizeof(_Scalar) || stride0 == 0,
						   kFloat ? "stride0 == _Dimension * sizeof(float) || stride0 == 0" : "stride0 == _Dimension * sizeof(s32) || stride0 == 0");
			OX_ASSERT_TEXT(stride1 == _Dimension * sizeof(_Scalar) || stride1 == 0,
						   kFloat ? "stride1 == _Dimension * sizeof(float) || stride1 == 0" : "stride1 == _Dimension * sizeof(s32) || stride1 == 0");
		}

		// What KernelChecks needs to know of register values: a uniform shift count is
		// checked by its value, which a caller may not know (the verifier, when the program
		// itself writes the count).
		enum ECountKnowledge : u8
		{
			Count_Read = 0,		// read it from source 1's storage
			Count_Unknown,		// a uniform count on blocks fails SCheck_ShiftCount
		};

		// The selectors' and kernels' checks of an instruction resolved on the standard
		// path. _OneElement: the instruction evaluates one element (every source then read
		// as a one-element stream), where the checks of broadcast operands cannot fail:
		// modulo and negation see packed strides, and no integer block is whole.
		//
		// The destination's element size is checked for every operator: the integer
		// selector, float modulo and negation report another one, and the other float
		// kernels take their slow path for it (a hazard, not a report).
		template <bool _OneElement, typename _Policy>
		inline OX_ALWAYS_INLINE bool KernelChecks(_Policy &policy, SOp_MathOp::EOp op, const SResolvedMathOp &r, ECountKnowledge count = Count_Read)
		{
			static_assert(!_Policy::kAccessorsReport, "the kernels report their own checks");
			const SBaseTypeInfo &type = BaseTypeInfo(r.m_SrcType0);
			const bool known = u32(op) < u32(SOp_MathOp::__MaxOps);
			const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(op);
			if constexpr (_Policy::kResolvesRegisters)
			{
				OX_MATHOP_CHECK(SCheck_DstPresent, r.m_EvalInto != nullptr);
				OX_MATHOP_CHECK(SCheck_Src0Present, r.m_Data0 != nullptr);
				OX_MATHOP_CHECK(SCheck_Src1Present, traits.m_ParameterCount == 1 || r.m_Data1 != nullptr);
				OX_MATHOP_CHECK(SCheck_DstAligned, Mem::IsAligned<32>(r.m_EvalInto));
				OX_MATHOP_CHECK(SCheck_Src0Aligned, Mem::IsAligned<32>(r.m_Data0));
				OX_MATHOP_CHECK(SCheck_Src1Aligned, Mem::IsAligned<32>(r.m_Data1));
			}
			OX_MATHOP_CHECK(SCheck_KernelRow, type.m_Kind != ElementKind_None);
			if (type.m_Kind == ElementKind_None)
				return true;
			if (type.m_Kind == ElementKind_Float)
				OX_MATHOP_CHECK(SCheck_FloatOperator, known && traits.FloatSupported());
			else
				OX_MATHOP_CHECK(SCheck_IntOperator, known);
			OX_MATHOP_CHECK(SCheck_DstElementSize, SKernelPredicates::DestinationPacked(r.m_Stride, type.m_Size));
			if constexpr (!_OneElement)
			{
				if (type.m_Kind == ElementKind_Float && traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod)
					OX_MATHOP_CHECK(SCheck_ModOneConstant, (r.m_Stride0 != 0 && r.m_Stride1 != 0) || SKernelPredicates::ModOneConstant(r.m_Stride0, r.m_Stride1));
				if (type.m_Kind == ElementKind_Float && traits.m_FloatKernel == SOp_MathOp::FloatKernel_Neg)
					OX_MATHOP_CHECK(SCheck_NegOfStream, SKernelPredicates::NegOfStream(r.m_Stride, r.m_Stride0, type.m_Size));
				if (_Policy::kResolvesRegisters && type.m_Kind != ElementKind_Float && type.m_Kind != ElementKind_None && known && traits.m_IntKernel == SOp_MathOp::IntKernel_Shift && r.m_Data1 != nullptr)
				{
					const u64 ints = u64(r.m_EvalCount) * type.m_Components;
					const s32 *counts = static_cast<const s32 *>(r.m_Data1);
					// An unknown count fails only where the block path would take it: a
					// broadcast operand over at least one whole block.
					const bool blocks = count == Count_Unknown ? r.m_Stride1 == 0 && ints >= 12 : SKernelPredicates::UniformBlocks(r.m_Stride1, ints, counts, type.m_Components);
					OX_MATHOP_CHECK(SCheck_ShiftCount, !blocks || (count == Count_Read && SIMD_SSE::Float4::ShiftCountInRange(u32(counts[0]))));
				}
			}
			return true;
		}

#undef OX_MATHOP_CHECK
#undef OX_MATHOP_SIZE_CHECK
	}
}
