meta:
  id: quorvane
  title: Media transfer packets of mod_quorvane
  ks-version: '0.9'
  endian: le
doc: |
  One UDP datagram of the media transfer protocol: a start, data, control or
  terminate packet. A switch sends them to a media node and expects no answer.
  protocol.md beside this file describes what a receiver does with them.

  A datagram that a receiver must refuse does not parse.
doc-ref: protocol.md
seq:
  - id: magic
    type: u4
    valid: 0x00ff00ff
    doc: Marks the protocol; the bytes FF 00 FF 00.
  - id: packet_type
    type: u1
    enum: packet_type
    valid:
      any-of:
        - packet_type::start
        - packet_type::terminate
        - packet_type::data
        - packet_type::control
  - id: protocol_version
    type: u1
    valid: 1
  - id: leg_word
    type: u2
    doc: Flags; the instances of the body decode them.
  - id: call_key
    type: u8
    doc: |
      CRC-64 of the call's UUID (ECMA-182: polynomial 0x42f0e1eba9ea3693, initial
      value 0, not reflected, not inverted). Inexact where the language holds
      numbers as doubles; call_uuid identifies the call as well.
  - id: call_uuid
    size: 16
  - id: send_time
    type: s8
    doc: Steady clock of the switch machine, in microseconds.
  - id: body
    type:
      switch-on: packet_type
      cases:
        'packet_type::start': start_body
        'packet_type::terminate': terminate_body
        'packet_type::data': data_body
        'packet_type::control': control_body
  - id: surplus
    type: u1
    if: not _io.eof
    valid:
      min: 1
      max: 0
    doc: Nothing follows the packet, so no value of a byte is valid here.
types:
  start_body:
    seq:
      - id: created_time
        type: u8
        doc: Wall clock, in microseconds since 1970; 0 if unknown.
      - id: configured_time
        type: u8
        doc: Wall clock, in microseconds since 1970.
      - id: configured_clock
        type: s8
        doc: Steady clock at the moment of configured_time, in microseconds.
      - id: rule_id
        type: u8
      - id: report_node_address
        type: u4be
      - id: report_node_port
        type: u2be
      - id: features
        type: features
      - id: call_reference_length
        type: u2
        valid:
          min: 1
          max: 1294
        doc: Length of the call reference, including its zero byte.
      - id: call_reference
        size: call_reference_length - 1
        doc: In practice UTF-8, but any bytes are allowed.
      - id: call_reference_end
        contents: [0]
    instances:
      is_outbound:
        value: (_root.leg_word & 0x0001) != 0
      has_report_node:
        value: (_root.leg_word & 0x4000) != 0
      has_rule_id:
        value: (_root.leg_word & 0x8000) != 0
  data_body:
    seq:
      - id: sequence_number
        type: u4
        doc: Per leg; the first packet carries 1.
      - id: sample_offset
        type: u4
        doc: Per leg; the samples sent before this packet.
      - id: sample_count
        type: u2
        valid:
          max: 661
      - id: audio
        type: s2
        repeat: expr
        repeat-expr: sample_count
    instances:
      is_write_leg:
        value: (_root.leg_word & 0x8000) != 0
      is_terminator:
        value: (_root.leg_word & 0x0001) != 0
        doc: Whether it is the terminator's audio; otherwise it is the originator's.
  control_body:
    seq:
      - id: features
        type: features
        doc: An update; it changes only the features that it supports.
  terminate_body: {}
  features:
    seq:
      - id: supported
        type: u1
        doc: To which sides a feature applies.
      - id: active
        type: u1
        doc: On which sides it runs; valid only where supported.
    instances:
      audio_activity_originator:
        value: (supported & active & 0x04) != 0
      audio_activity_terminator:
        value: (supported & active & 0x08) != 0
      sample_detection_originator:
        value: (supported & active & 0x10) != 0
      sample_detection_terminator:
        value: (supported & active & 0x20) != 0
      recording_originator:
        value: (supported & active & 0x40) != 0
      recording_terminator:
        value: (supported & active & 0x80) != 0
enums:
  packet_type:
    0x81: start
    0x82: terminate
    0x83: data
    0x84: control
