#pragma once

// The words of the control-room protocol, written once for the agent and the control room tool.
// Plain C strings so that code with or without Qt can use them (QLatin1StringView(Protocol::...)).
namespace Protocol {

/// HTTP and WebSocket paths on the control room's one port.
namespace Path {
inline constexpr char agent[] = "/agent";       ///< the agents' WebSocket
inline constexpr char upload[] = "/upload";     ///< POST of one segment file
inline constexpr char event[] = "/event";       ///< POST of one agent event (no body)
inline constexpr char sale[] = "/sale";         ///< POST of a sale record (JSON)
inline constexpr char saleFile[] = "/sale-file"; ///< POST of one file of a sale
inline constexpr char probe[] = "/";            ///< GET liveness probe
} // namespace Path

/// Query items of the agent's WebSocket.
namespace LinkQuery {
inline constexpr char id[] = "id";
inline constexpr char os[] = "os";
inline constexpr char version[] = "v";
inline constexpr char name[] = "name";
inline constexpr char platform[] = "linux"; ///< the value of "os"
} // namespace LinkQuery

/// Query items of POST /upload.
namespace UploadQuery {
inline constexpr char id[] = "id";
inline constexpr char session[] = "session";
inline constexpr char track[] = "track";
inline constexpr char take[] = "take";
inline constexpr char index[] = "idx";
inline constexpr char ext[] = "ext";
inline constexpr char final[] = "final"; ///< "1" on the last piece of a track's take
} // namespace UploadQuery

/// Query items of POST /sale-file.
namespace SaleFileQuery {
inline constexpr char sale[] = "sale";
inline constexpr char kind[] = "kind";
inline constexpr char ext[] = "ext";
inline constexpr char confirm[] = "confirm"; ///< kind: the confirmation document
inline constexpr char call[] = "call";       ///< kind: the call recording
} // namespace SaleFileQuery

/// The sale record (POST /sale, JSON) and the member of its answer that holds the sale token.
namespace Sale {
inline constexpr char id[] = "id";
inline constexpr char method[] = "method";
inline constexpr char lead[] = "lead";
inline constexpr char apv[] = "apv";
inline constexpr char referral[] = "referral";
inline constexpr char token[] = "sale";       ///< member of the answer
inline constexpr char phone[] = "phone";      ///< method
inline constexpr char computer[] = "computer"; ///< method
inline constexpr char yes[] = "yes";          ///< referral
inline constexpr char no[] = "no";            ///< referral
} // namespace Sale

/// The member of every JSON message that names its type.
inline constexpr char type[] = "type";

/// Commands from the control room ("type" and their arguments).
namespace Command {
inline constexpr char start[] = "start";
inline constexpr char stop[] = "stop";
inline constexpr char listen[] = "listen";
inline constexpr char preview[] = "preview";
inline constexpr char cameras[] = "cameras";
inline constexpr char whisper[] = "whisper";
inline constexpr char setMic[] = "setMic";
inline constexpr char setCam[] = "setCam";
inline constexpr char quality[] = "quality";
inline constexpr char release[] = "release";
inline constexpr char replaced[] = "replaced";

inline constexpr char session[] = "session"; ///< start
inline constexpr char on[] = "on";           ///< listen, preview, cameras
inline constexpr char hd[] = "hd";           ///< preview
inline constexpr char text[] = "text";       ///< whisper
inline constexpr char seat[] = "seat";       ///< whisper
inline constexpr char uid[] = "uid";         ///< setMic, setCam
inline constexpr char q[] = "q";             ///< quality
} // namespace Command

/// Upload quality words of the "quality" command.
namespace Quality {
inline constexpr char low[] = "low";
inline constexpr char med[] = "med";
inline constexpr char full[] = "full";
} // namespace Quality

/// The agent's heartbeat: type "status" and its keys, in the order they are sent.
namespace Status {
inline constexpr char type[] = "status";
inline constexpr char updateBusy[] = "updateBusy";
inline constexpr char recording[] = "recording";
inline constexpr char live[] = "live";
inline constexpr char mic[] = "mic";
inline constexpr char sys[] = "sys";
inline constexpr char rate[] = "rate";
inline constexpr char cam[] = "cam";
inline constexpr char camActive[] = "camActive";
inline constexpr char camError[] = "camError";
inline constexpr char micName[] = "micName";
inline constexpr char mics[] = "mics";
inline constexpr char cams[] = "cams";
inline constexpr char micUID[] = "micUID";
inline constexpr char camUID[] = "camUID";
inline constexpr char error[] = "error";
inline constexpr char deviceUid[] = "uid";   ///< member of each entry of "mics" and "cams"
inline constexpr char deviceName[] = "name"; ///< member of each entry of "mics" and "cams"
} // namespace Status

/// Agent events (POST /event): query items and event types.
namespace Event {
inline constexpr char id[] = "id";
inline constexpr char type[] = "type";
inline constexpr char callStart[] = "call_start";
inline constexpr char callEnd[] = "call_end";
inline constexpr char help[] = "help";
inline constexpr char review[] = "review";
inline constexpr char secs[] = "secs";
inline constexpr char outcome[] = "outcome";
inline constexpr char ctype[] = "ctype";
inline constexpr char why[] = "why";
} // namespace Event

/// First byte of each binary frame on the link; the payload follows.
namespace Frame {
inline constexpr unsigned char micAudio = 0;      ///< live audio of the microphone, 16-bit PCM
inline constexpr unsigned char computerAudio = 1; ///< live audio of the computer's output
inline constexpr unsigned char preview = 2;       ///< one camera preview picture, JPEG
} // namespace Frame

/// DNS-SD service type under which a control room announces itself.
inline constexpr char serviceType[] = "_bravacontrol._tcp";

} // namespace Protocol
