// The bytecode verifier: every check that the math-op workers assert (and a few they
// cannot make, such as slot bounds and 64-bit sizes), made before anything runs.

#include "cbvm_verifier.h"

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_decoder.h"

#include <cstdarg>
#include <cstdio>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			using SOp_MathOp = Compiler::IR::SOp_MathOp;

			constexpr u32 kMissing = CVMRegID::kInvalidBits;
			constexpr u32 kWellFormedLimit = CVMRegID::kWellFormedLimit;

			// Register id fields, read without the accessors' assertions.
			u32 _Slot(u32 bits) { return CVMRegID::SlotOf(bits); }
			u32 _BankIndex(u32 bits) { return CVMRegID::BankIndexOf(bits); }
			bool _PerElement(u32 bits) { return CVMRegID::PerElementOf(bits); }
			const SBaseTypeInfo &_TypeInfo(u32 bits) { return kBaseTypes[CVMRegID::TypeFieldOf(bits)]; }
			u32 _ElementSize(u32 bits) { return _TypeInfo(bits).m_Size; }

			class CWalk
			{
			public:
				CWalk(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters *registers, u32 slotCount, SVerifyProblem *problems, u32 capacity, u32 flags)
				: m_Bytecode(bytecode), m_Size(size), m_Registers(registers), m_SlotCount(slotCount), m_Problems(problems), m_Capacity(problems != nullptr ? capacity : 0), m_Flags(flags) {}

				SVerifyResult Run()
				{
					CMathOpWalker walk(m_Bytecode, m_Size);
					SMathOpInstruction decoded;
					while (walk.Next(decoded))
					{
						++m_Result.m_Instructions;
						_Instruction(decoded);
					}
					if (walk.Problem() != MathOpDecode_Ok)
						_ReportDecodeProblem(walk.Problem(), decoded);
					return m_Result;
				}

			private:
				void _ReportDecodeProblem(EMathOpDecode problem, const SMathOpInstruction &at)
				{
					char text[SVerifyProblem::kMessageSize];
					FormatMathOpDecodeProblem(problem, at, m_Size, text, sizeof(text));
					const EVerifyError code = problem == MathOpDecode_UnknownOperator ? VerifyError_UnknownOperator
											  : problem == MathOpDecode_Truncated	  ? VerifyError_Truncated
																					  : VerifyError_UnknownOpcode;
					_Report(at.m_Offset, code, "%s", text);
				}

				// One framed instruction: every check of it, each problem reported.
				void _Instruction(const SMathOpInstruction &ins)
				{
					if (!ins.KnownOperator())
					{
						_ReportDecodeProblem(MathOpDecode_UnknownOperator, ins);
						return;
					}
					const u8 *at = m_Bytecode + ins.m_Offset;
					const u32 wb = MathOp::RegisterBlockOffset(ins.m_Opcode);

					// The instruction alone: the checks both paths make of its ids, operand
					// count and types, and those of the selectors and kernels about types.
					MathOp::SCollectStructurePolicy shape;
					MathOp::SResolvedMathOp resolved;
					const CCBCPUMetaRegisters noFile;
					MathOp::ResolveOperands<MathOp::Path_Standard>(shape, noFile, at, wb, ins.m_Op, resolved);
					MathOp::ResolveOperands<MathOp::Path_Low>(shape, noFile, at, wb, ins.m_Op, resolved);
					// Past ill-formed ids or a wrong operand count the fields mean nothing.
					if (!_ReportIds(ins, shape))
						return;
					MathOp::KernelChecks</*_OneElement*/ false>(shape, ins.m_Op, resolved);
					const bool typesOk = _ReportTypes(ins, shape);
					if (m_Registers == nullptr || !_SlotsInside(ins))
						return;

					// Against the register file: the same checks with the entries resolved.
					MathOp::SCollectPolicy file;
					MathOp::ResolveOperands<MathOp::Path_Standard>(file, *m_Registers, at, wb, ins.m_Op, resolved);
					MathOp::SResolvedMathOp resolvedLow;
					MathOp::ResolveOperands<MathOp::Path_Low>(file, *m_Registers, at, wb, ins.m_Op, resolvedLow);
					// Only a shift by a broadcast count can take the block path that the count's
					// value decides; asking for others would make the walk quadratic for nothing.
					const bool uniformShift = SOp_MathOp::OperatorTraits(ins.m_Op).m_IntKernel == SOp_MathOp::IntKernel_Shift && resolved.m_Stride1 == 0;
					const MathOp::ECountKnowledge count = uniformShift ? _CountKnowledge(ins) : MathOp::Count_Read;
					MathOp::KernelChecks</*_OneElement*/ false>(file, ins.m_Op, resolved, count);
					if (_ReportRegisters(ins, file) && typesOk)
						_ReportForms(ins, file, count);
				}

				// Ids and operand count. True when nothing was wrong.
				bool _ReportIds(const SMathOpInstruction &ins, const MathOp::SCollectStructurePolicy &checks)
				{
					const u32 errors = m_Result.m_Errors;
					if (checks.Failed<MathOp::SCheck_DstId>())
						_ReportId(ins.m_Offset, ins.Dst(), "destination");
					if (checks.Failed<MathOp::SCheck_Src0Id>())
						_ReportId(ins.m_Offset, ins.Src0(), "source 0");
					if (checks.Failed<MathOp::SCheck_Src1Id>())
						_Report(ins.m_Offset, VerifyError_IllFormedRegister, "source 1 register id 0x%08x is ill-formed: bits 30 and 31 must be clear", ins.Src1());
					const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(ins.m_Op);
					if (checks.Failed<MathOp::SCheck_OperandCount>())
					{
						if (!ins.HasSrc1())
							_Report(ins.m_Offset, VerifyError_OperandCount, "'%s' takes 2 sources, source 1 is missing (0xffffffff)", traits.m_Name);
						else
							_Report(ins.m_Offset, VerifyError_OperandCount, "'%s' takes 1 source, source 1 must be 0xffffffff, not 0x%08x", traits.m_Name, ins.Src1());
					}
					return m_Result.m_Errors == errors;
				}

				void _ReportId(u32 offset, u32 bits, const char *role)
				{
					if (bits == kMissing)
						_Report(offset, VerifyError_IllFormedRegister, "%s register is missing (0xffffffff)", role);
					else
						_Report(offset, VerifyError_IllFormedRegister, "%s register id 0x%08x is ill-formed: bits 30 and 31 must be clear", role, bits);
				}

				// Types: a kernel for source 0's type, one type for both sources, a float form
				// of the operator, a destination of the sources' element size. True when
				// nothing was wrong.
				bool _ReportTypes(const SMathOpInstruction &ins, const MathOp::SCollectStructurePolicy &checks)
				{
					const u32 errors = m_Result.m_Errors;
					const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(ins.m_Op);
					const SBaseTypeInfo &type = _TypeInfo(ins.Src0());
					if (checks.Failed<MathOp::SCheck_KernelRow>() || checks.Failed<MathOp::SCheck_SrcTypeSize>())
						_Report(ins.m_Offset, VerifyError_UnsupportedType, "source type of %s has no math kernel (kernels: float..float4, quaternion, i32..int4, bool..bool4)",
								SRegisterIdText(ins.Src0()).m_Text);
					if (checks.Failed<MathOp::SCheck_SourceTypes>())
						_Report(ins.m_Offset, VerifyError_SourceTypesDiffer, "source types differ: source 0 is %s, source 1 is %s", SRegisterIdText(ins.Src0()).m_Text,
								SRegisterIdText(ins.Src1()).m_Text);
					if (checks.Failed<MathOp::SCheck_FloatOperator>())
						_Report(ins.m_Offset, VerifyError_BitwiseOnFloat, "'%s' is a bitwise operator: it takes int and bool operands, source 0 is %s", traits.m_Name,
								SRegisterIdText(ins.Src0()).m_Text);
					// (A destination of another size makes the integer and the modulo and
					// negation kernels report, and the other float kernels take their slow
					// path: refused for all, as the Low path would write past it.)
					if (checks.Failed<MathOp::SCheck_DstElementSize>() || (type.m_Kind != ElementKind_None && checks.Failed<MathOp::SCheck_DstTypeSize>()))
						_Report(ins.m_Offset, VerifyError_DestinationType, "destination %s holds %u-byte elements; '%s' of %s sources writes %u-byte elements",
								SRegisterIdText(ins.Dst()).m_Text, _ElementSize(ins.Dst()), traits.m_Name, type.m_Name, type.m_Size);
					return m_Result.m_Errors == errors;
				}

				u64 _EvalCount(const SMathOpInstruction &ins) const
				{
					return _PerElement(ins.Dst()) ? u64(m_Registers->m_StreamDimensions) : 1;
				}

				// Every operand's slot inside the table (the entry points cannot check it: they
				// would read outside the table to find out). True when they all are.
				bool _SlotsInside(const SMathOpInstruction &ins)
				{
					const u32 errors = m_Result.m_Errors;
					u32 seen[3];
					u32 count = 0;
					for (u32 bits : {ins.Dst(), ins.Src0(), ins.Src1()})
					{
						if (bits == kMissing)
							continue;
						bool repeated = false;
						for (u32 i = 0; i < count; ++i)
							repeated = repeated || (_Slot(seen[i]) == _Slot(bits) && _BankIndex(seen[i]) == _BankIndex(bits));
						seen[count++] = bits;
						if (!repeated && (m_Registers->m_Registers == nullptr || _Slot(bits) >= m_SlotCount))
							_Report(ins.m_Offset, VerifyError_SlotOutOfRange, "slot %u of %s is outside the register file (%u slots)", _Slot(bits), SRegisterIdText(bits).m_Text,
									m_Registers->m_Registers == nullptr ? 0u : m_SlotCount);
					}
					return m_Result.m_Errors == errors;
				}

				// What the count of a shift is known to be: its value read now, unless an
				// instruction of this program may write its bytes (or the register is too
				// small to read it).
				MathOp::ECountKnowledge _CountKnowledge(const SMathOpInstruction &ins)
				{
					if (!ins.HasSrc1())
						return MathOp::Count_Read;
					const CCBCPUMetaRegisters::SRegister &entry = m_Registers->SelectWellFormed(ins.Src1());
					const u32 bytes = _TypeInfo(ins.Src0()).m_Size;
					if (entry.m_RawData == nullptr || bytes == 0 || entry.m_Size < bytes)
						return MathOp::Count_Unknown;
					// Shifts by one count register usually come together: the last answer is kept.
					if (entry.m_RawData != m_CountData || bytes != m_CountBytes)
					{
						m_CountData = entry.m_RawData;
						m_CountBytes = bytes;
						m_CountWritten = _WrittenByProgram(entry.m_RawData, bytes);
					}
					return m_CountWritten ? MathOp::Count_Unknown : MathOp::Count_Read;
				}

				// Storage and sizes of each distinct register, from the checks of its roles: a
				// destination that holds the stream (or one element), sources that hold what
				// the instruction reads. Beyond the entry points' checks, a one-value register
				// must hold its one element: a broadcast source (the kernels read it; its
				// stride is 0) and a Constant or Normal destination (whose check passes for
				// any size when m_StreamDimensions is 0, and one element is written). Sizes
				// are checked when the element size is known. True when nothing was wrong.
				bool _ReportRegisters(const SMathOpInstruction &ins, const MathOp::SCollectPolicy &checks)
				{
					const u32 errors = m_Result.m_Errors;
					const u64 evalCount = _EvalCount(ins);
					// Source 0's element size, when it has a kernel and the destination agrees
					// (the paths size both sources by source 0's type).
					const SBaseTypeInfo &type = _TypeInfo(ins.Src0());
					const u32 elementSize = type.m_Kind != ElementKind_None && _ElementSize(ins.Dst()) == type.m_Size ? type.m_Size : 0;
					struct SUse
					{
						u32 m_Bits;
						u64 m_Elements;		// elements read or written
						bool m_Writes;
						bool m_Missing, m_Misaligned, m_TooSmall;
					};
					SUse uses[3];
					u32 count = 0;
					auto add = [&](u32 bits, u64 elements, bool writes, bool missing, bool misaligned, bool tooSmall) {
						for (u32 i = 0; i < count; ++i)
							if (_Slot(uses[i].m_Bits) == _Slot(bits) && _BankIndex(uses[i].m_Bits) == _BankIndex(bits))
							{
								// The same storage in two roles: it must satisfy the larger need.
								SUse &use = uses[i];
								if (elements > use.m_Elements)
								{
									use.m_Elements = elements;
									use.m_Writes = writes;
								}
								use.m_Missing |= missing;
								use.m_Misaligned |= misaligned;
								use.m_TooSmall |= tooSmall;
								return;
							}
						uses[count++] = {bits, elements, writes, missing, misaligned, tooSmall};
					};
					auto holdsOne = [&](u32 bits) { return _PerElement(bits) || m_Registers->SelectWellFormed(bits).m_Size >= elementSize; };
					// A per-element source steps through evalCount elements; any other
					// source is read once (broadcast, or a one-element evaluation).
					add(ins.Dst(), evalCount, true, checks.Failed<MathOp::SCheck_DstPresent>(), checks.Failed<MathOp::SCheck_DstAligned>(),
						checks.Failed<MathOp::SCheck_DstSize>() || !holdsOne(ins.Dst()));
					add(ins.Src0(), _PerElement(ins.Src0()) ? evalCount : 1, false, checks.Failed<MathOp::SCheck_Src0Present>(), checks.Failed<MathOp::SCheck_Src0Aligned>(),
						checks.Failed<MathOp::SCheck_Src0Size>() || !holdsOne(ins.Src0()));
					if (ins.HasSrc1())
						add(ins.Src1(), _PerElement(ins.Src1()) ? evalCount : 1, false, checks.Failed<MathOp::SCheck_Src1Present>(), checks.Failed<MathOp::SCheck_Src1Aligned>(),
							checks.Failed<MathOp::SCheck_Src1Size>() || !holdsOne(ins.Src1()));

					for (u32 i = 0; i < count; ++i)
					{
						const SUse &use = uses[i];
						const SRegisterIdText name(use.m_Bits);
						const CCBCPUMetaRegisters::SRegister &entry = m_Registers->SelectWellFormed(use.m_Bits);
						if (use.m_Missing)
						{
							_Report(ins.m_Offset, VerifyError_NoStorage, "register %s has no storage (null data pointer)", name.m_Text);
							continue;
						}
						if (use.m_Misaligned)
							_Report(ins.m_Offset, VerifyError_Misaligned, "storage of register %s is not 32-byte aligned (address %% 32 = %u)", name.m_Text,
									u32(reinterpret_cast<std::uintptr_t>(entry.m_RawData) & 31u));
						const u64 needed = use.m_Elements * elementSize;
						if (elementSize != 0 && use.m_TooSmall)
							_Report(ins.m_Offset, VerifyError_RegisterTooSmall, "register %s holds %u bytes, too small: this instruction %s %llu element%s (%llu bytes)", name.m_Text,
									entry.m_Size, use.m_Writes ? "writes" : "reads", static_cast<unsigned long long>(use.m_Elements), use.m_Elements == 1 ? "" : "s",
									static_cast<unsigned long long>(needed));
					}
					return m_Result.m_Errors == errors;
				}

				// The legal forms that the standard path reports (cbvm_path_difference.h): the
				// kernels' checks that fail for operands the register file accepts.
				void _ReportForms(const SMathOpInstruction &ins, const MathOp::SCollectPolicy &checks, MathOp::ECountKnowledge count)
				{
					const char *name = SOp_MathOp::OperatorTraits(ins.m_Op).m_Name;
					if (checks.Failed<MathOp::SCheck_NegOfStream>())
						_Report(ins.m_Offset, VerifyError_FloatNegOfConstant, "float 'neg' of %s (one value) into a per-element destination is refused by the standard path "
								"(nothing written); negate into a constant register, or use 'sub' from zero", SRegisterIdText(ins.Src0()).m_Text);
					if (checks.Failed<MathOp::SCheck_ModOneConstant>())
						_Report(ins.m_Offset, VerifyError_FloatModOfConstants, "float 'mod' of two one-value sources (%s, %s) into a per-element destination is reported "
								"by the standard path; compute it into a constant register", SRegisterIdText(ins.Src0()).m_Text, SRegisterIdText(ins.Src1()).m_Text);
					if (!checks.Failed<MathOp::SCheck_ShiftCount>())
						return;
					const SRegisterIdText countText(ins.Src1());
					if (count == MathOp::Count_Unknown)
						_Report(ins.m_Offset, VerifyError_ShiftCountUnchecked, "'%s' count register %s is written by this program: its value at run time is not checked here "
								"(a uniform count above 31 is reported by the standard path)", name, countText.m_Text);
					else
						_Report(ins.m_Offset, VerifyError_ShiftCountAbove31, "uniform '%s' count %u in %s is above 31: the standard path shifts whole blocks out (0 or the sign fill) "
								"and reports it, the Low path uses the low five bits; keep counts in 0..31", name, u32(*static_cast<const s32 *>(m_Registers->SelectWellFormed(ins.Src1()).m_RawData)),
								countText.m_Text);
				}

				// True when an instruction of this program may write a byte of [data, data +
				// size). Decided by storage, not by (slot, bank): two table entries may view
				// the same bytes. An instruction writes at most the elements it evaluates from
				// its destination's start, each at most as wide as the larger of the source's
				// and the destination's element (the Low path writes source-sized elements
				// densely), whether or not the register is large enough for them.
				bool _WrittenByProgram(const void *data, u32 size) const
				{
					const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(data);
					const std::uintptr_t last = first + size;
					CMathOpWalker walk(m_Bytecode, m_Size);
					SMathOpInstruction ins;
					while (walk.Next(ins))
					{
						const u32 dst = ins.Dst(), src0 = ins.Src0();
						if (dst >= kWellFormedLimit || _Slot(dst) >= m_SlotCount)
							continue;
						const CCBCPUMetaRegisters::SRegister &written = m_Registers->SelectWellFormed(dst);
						if (written.m_RawData == nullptr)
							continue;
						const u32 widest = _ElementSize(dst) > _ElementSize(src0) ? _ElementSize(dst) : _ElementSize(src0);
						const u64 extent = (_PerElement(dst) ? u64(m_Registers->m_StreamDimensions) : 1) * widest;
						const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(written.m_RawData);
						const std::uintptr_t end = begin + std::uintptr_t(extent);
						if (begin < last && first < end)
							return true;
					}
					return false;
				}

				EVerifySeverity _Severity(EVerifyError code) const
				{
					if (code == VerifyError_ShiftCountUnchecked)
						return VerifySeverity_Warning;
					const bool reported = code == VerifyError_FloatNegOfConstant || code == VerifyError_FloatModOfConstants || code == VerifyError_ShiftCountAbove31;
					return reported && (m_Flags & VerifyFlag_AllowReportedForms) != 0 ? VerifySeverity_Warning : VerifySeverity_Error;
				}

#if defined(__GNUC__)
				__attribute__((format(printf, 4, 5)))
#endif
				void _Report(u32 offset, EVerifyError code, const char *format, ...)
				{
					const EVerifySeverity severity = _Severity(code);
					const u32 index = m_Result.Problems();
					if (severity == VerifySeverity_Error)
						++m_Result.m_Errors;
					else
						++m_Result.m_Warnings;
					if (index >= m_Capacity)
						return;
					SVerifyProblem &problem = m_Problems[index];
					problem.m_Offset = offset;
					problem.m_Code = code;
					problem.m_Severity = severity;
					va_list args;
					va_start(args, format);
					std::vsnprintf(problem.m_Message, sizeof(problem.m_Message), format, args);
					va_end(args);
				}

				const u8 *m_Bytecode;
				u32 m_Size;
				const CCBCPUMetaRegisters *m_Registers;	// null: structure only
				u32 m_SlotCount;
				SVerifyProblem *m_Problems;
				u32 m_Capacity;
				u32 m_Flags;
				SVerifyResult m_Result;
				// The last shift count asked about, and whether the program may write it.
				const void *m_CountData = nullptr;
				u32 m_CountBytes = 0;
				bool m_CountWritten = false;
			};
		}

		SVerifyResult CVerifier::Verify(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, SVerifyProblem *problems, u32 capacity, u32 flags)
		{
			return CWalk(bytecode, size, &registers, slotCount, problems, capacity, flags).Run();
		}

		SVerifyResult CVerifier::Verify(const u8 *bytecode, u32 size, const CRegisterStorage &storage, SVerifyProblem *problems, u32 capacity, u32 flags)
		{
			return Verify(bytecode, size, storage.Registers(), storage.SlotCount(), problems, capacity, flags);
		}

		SVerifyResult CVerifier::VerifyStructure(const u8 *bytecode, u32 size, SVerifyProblem *problems, u32 capacity)
		{
			return CWalk(bytecode, size, nullptr, 0, problems, capacity, VerifyFlag_None).Run();
		}

		const char *VerifyErrorName(EVerifyError code)
		{
			static constexpr const char *kNames[__MaxVerifyErrors] = {
				"none", "unknown opcode", "truncated instruction", "unknown operator", "ill-formed register", "operand count",
				"unsupported type", "source types differ", "bitwise operator on floats", "destination type", "slot out of range",
				"no storage", "misaligned storage", "register too small", "float neg of a constant", "float mod of constants",
				"shift count above 31", "shift count unchecked",
			};
			return u32(code) < __MaxVerifyErrors ? kNames[code] : "?";
		}
	}
}
