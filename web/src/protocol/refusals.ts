// The refusal codes of docs/wire-protocol.md section 6, in words. The code is
// stable and the gateway's "reason" may be reworded, so the page keys on the
// code and shows the reason beside it.

const WORDS: Record<string, string> = {
  bad_shape: 'malformed command',
  bad_device_id: 'device id is not a string',
  unknown_device: 'unknown device',
  bad_dp_key: 'bad DP number',
  unknown_dp: 'unknown DP',
  duplicate_dp: 'DP given twice',
  not_writable: 'DP is not writable',
  bad_type: 'wrong type of value',
  out_of_range: 'value out of range',
  off_step: 'value not on the step',
  unknown_enum: 'not one of the names',
  too_long: 'too long',
  bad_base64: 'not valid base64',
  too_many_ids: 'too many ids',
};

/** "value out of range" for out_of_range; a code this page does not know is shown as it came. */
export function refusalWords(code: string): string {
  return WORDS[code] ?? code.replace(/_/g, ' ');
}
