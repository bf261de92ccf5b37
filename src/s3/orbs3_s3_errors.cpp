#include "s3/orbs3_s3_errors.h"

#include <cstring>
#include <string>
#include <string_view>

#include "core/orbs3_xml.h"
#include "memory/orbs3_palloc.h"

// Statuses are those the names carry in the S3 standard; messages follow its wording, with this
// provider's name.
const orbs3_s3_error_t g_s3_error_info[] = {
    {0xc000001, 403, "AccessDenied", "Access Denied"},
    {0xc000093, 403, "AccessDenied", "Access Denied"},
    {0xc000002, 403, "AccountProblem",
     "There is a problem with your HARROWMINT account that prevents the action from completing successfully."},
    {0xc000003, 403, "AllAccessDisabled", "All access to this HARROWMINT resource has been disabled."},
    {0xc000004, 400, "AmbiguousGrantByEmailAddress",
     "The email address you provided is associated with more than one account."},
    {0xc000005, 400, "AuthorizationHeaderMalformed", "The authorization header you provided is invalid."},
    {0xc000006, 400, "BadDigest", "The Content-MD5 you specified did not match what we received."},
    {0xc000007, 409, "BucketAlreadyExists",
     "The requested bucket name is not available. The bucket namespace is shared by all users of the system. "
     "Please select a different name and try again."},
    {0xc000008, 409, "BucketAlreadyOwnedByYou",
     "The bucket you tried to create already exists, and you own it."},
    {0xc000009, 409, "BucketNotEmpty", "The bucket you tried to delete is not empty."},
    {0xc000094, 403, "BucketTooMuch", "The bucket is full."},
    {0xc000095, 403, "ObjectTooMuch", "The object is full."},
    {0xc000010, 401, "CredentialsNotSupported", "This request does not support credentials."},
    {0xc000011, 403, "CrossLocationLoggingProhibited",
     "Cross-location logging not allowed. Buckets in one geographic location cannot log information to a "
     "bucket in another location."},
    {0xc000012, 400, "EntityTooSmall", "Your proposed upload is smaller than the minimum allowed object size."},
    {0xc000013, 400, "EntityTooLarge", "Your proposed upload exceeds the maximum allowed object size."},
    {0xc000014, 400, "ExpiredToken", "The provided token has expired."},
    {0xc000015, 400, "IllegalVersioningConfigurationException",
     "Indicates that the versioning configuration specified in the request is invalid."},
    {0xc000016, 400, "IncompleteBody",
     "You did not provide the number of bytes specified by the Content-Length HTTP header."},
    {0xc000017, 400, "IncorrectNumberOfFilesInPostRequest", "POST requires exactly one file upload per request."},
    {0xc000018, 400, "InlineDataTooLarge", "Inline data exceeds the maximum allowed size."},
    {0xc000019, 500, "InternalError", "We encountered an internal error. Please try again."},
    {0xc000020, 403, "InvalidAccessKeyId",
     "The HARROWMINT access key ID you provided does not exist in our records."},
    {0xc000021, 400, "InvalidAddressingHeader", "You must specify the Anonymous role."},
    {0xc000022, 400, "InvalidArgument", "Invalid Argument"},
    {0xc000023, 400, "InvalidBucketName", "The specified bucket is not valid."},
    {0xc000024, 409, "InvalidBucketState", "The request is not valid with the current state of the bucket."},
    {0xc000025, 400, "InvalidDigest", "The Content-MD5 you specified is not valid."},
    {0xc000026, 400, "InvalidEncryptionAlgorithmError",
     "The encryption request you specified is not valid. The valid value is AES256."},
    {0xc000027, 400, "InvalidLocationConstraint", "The specified location constraint is not valid."},
    {0xc000028, 403, "InvalidObjectState", "The operation is not valid for the current state of the object."},
    {0xc000029, 400, "InvalidPart",
     "One or more of the specified parts could not be found. The part might not have been uploaded, or the "
     "specified entity tag might not have matched the part's entity tag."},
    {0xc000030, 400, "InvalidPartOrder",
     "The list of parts was not in ascending order. Parts list must be specified in order by part number."},
    {0xc000031, 403, "InvalidPayer", "All access to this object has been disabled."},
    {0xc000032, 400, "InvalidPolicyDocument",
     "The content of the form does not meet the conditions specified in the policy document."},
    {0xc000033, 416, "InvalidRange", "The requested range cannot be satisfied."},
    {0xc000034, 400, "InvalidRequest", "Please use AWS4-HMAC-SHA256."},
    {0xc000035, 400, "InvalidRequest", "SOAP requests must be made over an HTTPS connection."},
    {0xc000036, 400, "InvalidRequest",
     "HARROWMINT Transfer Acceleration is not supported for buckets with non-DNS compliant names."},
    {0xc000037, 400, "InvalidRequest",
     "HARROWMINT Transfer Acceleration is not supported for buckets with periods (.) in their names."},
    {0xc000038, 400, "InvalidRequest", "HARROWMINT Transfer Accelerate endpoint only supports virtual style requests."},
    {0xc000039, 400, "InvalidRequest", "HARROWMINT Transfer Accelerate is not configured on this bucket."},
    {0xc000040, 400, "InvalidRequest", "HARROWMINT Transfer Accelerate is disabled on this bucket."},
    {0xc000041, 400, "InvalidRequest", "HARROWMINT Transfer Acceleration is not supported on this bucket."},
    {0xc000042, 400, "InvalidRequest", "HARROWMINT Transfer Acceleration cannot be enabled on this bucket."},
    {0xc000043, 403, "InvalidSecurity", "The provided security credentials are not valid."},
    {0xc000044, 400, "InvalidSOAPRequest", "The SOAP request body is invalid."},
    {0xc000045, 400, "InvalidStorageClass", "The storage class you specified is not valid."},
    {0xc000046, 400, "InvalidTargetBucketForLogging",
     "The target bucket for logging does not exist, is not owned by you, or does not have the appropriate "
     "grants for the log-delivery group."},
    {0xc000047, 400, "InvalidToken", "The provided token is malformed or otherwise invalid."},
    {0xc000048, 400, "InvalidURI", "Couldn't parse the specified URI."},
    {0xc000049, 400, "KeyTooLongError", "Your key is too long."},
    {0xc000050, 400, "MalformedACLError", "The XML you provided was not well-formed or did not validate against our published schema."},
    {0xc000051, 400, "MalformedPOSTRequest", "The body of your POST request is not well-formed multipart/form-data."},
    {0xc000052, 400, "MalformedXML",
     "The XML you provided was not well-formed or did not validate against our published schema."},
    {0xc000053, 400, "MaxMessageLengthExceeded", "Your request was too big."},
    {0xc000054, 400, "MaxPostPreDataLengthExceededError",
     "Your POST request fields preceding the upload file were too large."},
    {0xc000055, 400, "MetadataTooLarge", "Your metadata headers exceed the maximum allowed metadata size."},
    {0xc000056, 405, "MethodNotAllowed", "The specified method is not allowed against this resource."},
    {0xc000057, 400, "MissingAttachment", "A SOAP attachment was expected, but none were found."},
    {0xc000058, 411, "MissingContentLength", "You must provide the Content-Length HTTP header."},
    {0xc000059, 400, "MissingRequestBodyError", "Request body is empty."},
    {0xc000060, 400, "MissingSecurityElement", "The SOAP 1.1 request is missing a security element."},
    {0xc000061, 400, "MissingSecurityHeader", "Your request is missing a required header."},
    {0xc000062, 400, "NoLoggingStatusForKey", "There is no such thing as a logging status subresource for a key."},
    {0xc000063, 404, "NoSuchBucket", "The specified bucket does not exist."},
    {0xc000064, 404, "NoSuchBucketPolicy", "The specified bucket does not have a bucket policy."},
    {0xc000065, 404, "NoSuchKey", "The specified key does not exist."},
    {0xc000066, 404, "NoSuchLifecycleConfiguration", "The lifecycle configuration does not exist."},
    {0xc000067, 404, "NoSuchUpload",
     "The specified multipart upload does not exist. The upload ID might be invalid, or the multipart upload "
     "might have been aborted or completed."},
    {0xc000068, 404, "NoSuchVersion", "The version ID specified in the request does not match an existing version."},
    {0xc000069, 501, "NotImplemented", "A header you provided implies functionality that is not implemented."},
    {0xc000070, 403, "NotSignedUp",
     "Your account is not signed up for the HARROWMINT service. You must sign up before you can use it. You can "
     "sign up at the following URL: https://harrowmint.invalid/signup"},
    {0xc000062, 409, "OperationAborted",
     "A conflicting conditional operation is currently in progress against this resource. Try again."},
    {0xc000062, 301, "PermanentRedirect",
     "The bucket you are attempting to access must be addressed using the specified endpoint. Send all future "
     "requests to this endpoint."},
    {0xc000062, 412, "PreconditionFailed", "At least one of the preconditions you specified did not hold."},
    {0xc000062, 307, "Redirect", "Temporary redirect."},
    {0xc000062, 409, "RestoreAlreadyInProgress", "Object restore is already in progress."},
    {0xc000062, 400, "RequestIsNotMultiPartContent",
     "Bucket POST must be of the enclosure-type multipart/form-data."},
    {0xc000077, 400, "RequestTimeout",
     "Your socket connection to the server was not read from or written to within the timeout period."},
    {0xc000078, 403, "RequestTimeTooSkewed",
     "The difference between the request time and the server's time is too large."},
    {0xc000079, 400, "RequestTorrentOfBucketError", "Requesting the torrent file of a bucket is not permitted."},
    {0xc000080, 400, "ServerSideEncryptionConfigurationNotFound",
     "The server side encryption configuration was not found."},
    {0xc000081, 503, "ServiceUnavailable", "Reduce your request rate."},
    {0xc000082, 403, "SignatureDoesNotMatch",
     "The request signature we calculated does not match the signature you provided. Check your HARROWMINT "
     "secret access key and signing method. For more information, see REST Authentication and SOAP "
     "Authentication for details."},
    {0xc000083, 503, "SlowDown", "Reduce your request rate."},
    {0xc000084, 307, "TemporaryRedirect", "You are being redirected to the bucket while DNS updates."},
    {0xc000085, 400, "TokenRefreshRequired", "The provided token must be refreshed."},
    {0xc000086, 400, "TooManyBuckets", "You have attempted to create more buckets than allowed."},
    {0xc000087, 400, "UnexpectedContent", "This request does not support content."},
    {0xc000088, 400, "UnresolvableGrantByEmailAddress",
     "The email address you provided does not match any account on record."},
    {0xc000089, 400, "UserKeyMustBeSpecified",
     "The bucket POST must contain the specified field name. If it is specified, check the order of the fields."},
    {0xc000090, 409, "AccessKeyIdAlreadyExists", "The access key ID you provided already exists."},
    {0xc000091, 404, "DestKeyAlreadyExists", "The Dest Key you tried to copy already exists."},
    {0xc000092, 404, "CopyFailed", "Copy failed."},
    {0xc000400, 400, "OperationNotSupported", nullptr},
    // Answers of this server that the table above has no distinct code for.
    {0xc000401, 400, "XAmzContentSHA256Mismatch",
     "The provided 'x-amz-content-sha256' header does not match what was computed."},
    {0xc000402, 412, "PreconditionFailed", "At least one of the preconditions you specified did not hold."},
    {0xc000403, 400, "InvalidRequest", "A key stands where this key needs a directory, or the reverse."},
    {0xc000404, 400, "BadDigest", "The checksum you specified did not match what we received."},
    {0xc000405, 400, "AuthorizationQueryParametersError",
     "Query-string authentication version 4 requires the X-Amz-Algorithm, X-Amz-Credential, X-Amz-Signature, "
     "X-Amz-Date, X-Amz-SignedHeaders, and X-Amz-Expires parameters."},
    {0xc000411, 400, "InvalidTag",
     "The tag provided was not a valid tag. This error can occur if the tag did not pass input validation."},
    {0xc000420, 416, "InvalidPartNumber", "The requested partnumber is not satisfiable"},
    {0xffffffff, 0, "EndOff", nullptr},
};

const orbs3_s3_http_error_t s3_http_error[] = {
    {-1, 403, "IncompleteParameters", "Incomplete parameters"},
    {-2, 403, "AccessDenied", "access denied"},
    {-7, 409, "BucketAlreadyExists", "bucket already exists"},
    {-11, 409, "ObjectAlreadyExists", "object already exists"},
    {-4, 404, "NoSuchBucket", "bucket does not exist"},
    {-6, 404, "NoSuchObject", "object does not exist"},
    {-9, 404, "ObjectsEmpty", "list bucket objects is empty"},
    {-12, 409, "CopyObjectFailed", "copy object failed"},
    {0, 200, "Successful", nullptr},
};

const orbs3_s3_error_t* orbs3_s3_find_error(uint32_t code)
{
    for (const orbs3_s3_error_t* e = g_s3_error_info; e->code != 0xffffffff; e++) {
        if (e->code == code)
            return e;
    }
    return nullptr;
}

char* make_s3_error_resp_xml(const char* code_name, const char* message, const char* resource,
                             const char* request_id)
{
    const std::string_view parts[] = {code_name ? code_name : "", message ? message : "",
                                      resource ? resource : "", request_id ? request_id : ""};
    constexpr std::string_view tags[] = {"</Code><Message>", "</Message><Resource>", "</Resource><RequestId>",
                                         "</RequestId></Error>\n"};
    std::string text = "<?xml version=\"1.0\" encoding=\"utf-8\"?><Error><Code>";
    for (std::size_t i = 0; i < 4; i++) {
        orbs3_xml_escape(&text, parts[i], orbs3_xml_quotes::keep);
        text.append(tags[i]);
    }
    auto* doc = static_cast<char*>(orbs3_alloc(text.size() + 1));
    if (doc != nullptr)
        std::memcpy(doc, text.c_str(), text.size() + 1);
    return doc;
}

char* make_s3_error_resp_xml_ex(uint32_t code, const char* resource, const char* request_id, uint32_t* http_status)
{
    const orbs3_s3_error_t* e = orbs3_s3_find_error(code);
    if (http_status != nullptr)
        *http_status = e != nullptr ? e->http_status : 500;
    if (e == nullptr)
        return make_s3_error_resp_xml("unknown error", "unknown error", resource, request_id);
    return make_s3_error_resp_xml(e->name, e->message, resource, request_id);
}
