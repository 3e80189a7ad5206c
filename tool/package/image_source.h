// SPDX-License-Identifier: Apache-2.0
/** Where an installation gets its package from: a file, or a pipe that is read once. */
#ifndef TOOL_IMAGE_SOURCE_H
#define TOOL_IMAGE_SOURCE_H

#include "console/progress.h"
#include "package/image_reader.h"
#include "package/package_check.h"

#include <memory>
#include <string>

class ImageSource {
public:
    ImageSource() = default;
    ImageSource(const ImageSource&) = delete;
    ImageSource& operator=(const ImageSource&) = delete;
    virtual ~ImageSource() = default;

    /** The description; if authorities are given, only after one of its signatures was accepted. */
    [[nodiscard]] virtual Description describe(const TrustOptions& trust, std::string& signer) const = 0;
    /** Refuses what cannot be installed from this source, and sets the sizes that the description lacks. */
    virtual void check_contents(Description& description, bool is_signed) = 0;
    /** Takes images into memory that have to be read twice. To be called after check_contents() and before open(). */
    virtual void hold_images(Progress& progress) = 0;

    /** One image at a time. The source has to live as long as the reader. */
    virtual std::unique_ptr<ImageReader> open(const Image& image) = 0;
    /** Whether the image can be opened only once, in the order of files_in_order(), and nothing of it was checked yet.
     */
    [[nodiscard]] virtual bool is_read_once(const Image& image) const = 0;
    /** The package, null where it is not a file. */
    [[nodiscard]] virtual const Package* file() const = 0;
    /** Path of a file that holds an image that was taken into memory. */
    [[nodiscard]] virtual std::string path_of(const Image& image) const = 0;
    /** After the last image that is read once. Throws Failure where the package does not end there. */
    virtual void finish() = 0;
};

class FileImages : public ImageSource {
public:
    /** The package has to live as long as this. */
    explicit FileImages(const Package& package) : package_(package) {
    }
    [[nodiscard]] Description describe(const TrustOptions& trust, std::string& signer) const override;
    void check_contents(Description& description, bool is_signed) override;
    void hold_images(Progress& /*progress*/) override {
    }
    std::unique_ptr<ImageReader> open(const Image& image) override;
    [[nodiscard]] bool is_read_once(const Image& /*image*/) const override {
        return false;
    }
    [[nodiscard]] const Package* file() const override {
        return &package_;
    }
    [[nodiscard]] std::string path_of(const Image& /*image*/) const override {
        return {};
    }
    void finish() override {
    }

private:
    const Package& package_;
};

#endif
